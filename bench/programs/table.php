<?php
function cell($text) {
  return "<td>$text</td>";
}
function amount($number) {
  return "<td class='amount'>" . sprintf('%.2f', $number) . '</td>';
}
function row($name, $count, $price) {
  return '<tr>' . cell($name) . cell($count) . amount($price) . amount($count * $price) . "</tr>\n";
}

$teas = ['Assam', 'Darjeeling', 'Sencha', 'Rooibos', 'Keemun'];
$n = (int)$argv[1];
for ($table = 1; $table <= $n; $table++) {
  $text = '';
  $total = 0;
  for ($i = 1; $i <= 200; $i++) {
    $price = 2 + ($i + $table) % 97 / 7;
    $text .= row($teas[$i % 5], $i, $price);
    $total += $i * $price;
  }
}
echo $text, "\n", sprintf('%.2f', $total), "\n";
