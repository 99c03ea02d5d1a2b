<?php
function multiply(&$a, &$b, $n) {
  $product = [];
  for ($i = 1; $i <= $n; $i++) {
    for ($j = 1; $j <= $n; $j++) {
      $sum = 0;
      for ($k = 1; $k <= $n; $k++) $sum += $a[$i][$k] * $b[$k][$j];
      $product[$i][$j] = $sum;
    }
  }
  return $product;
}

$n = (int)$argv[1];
for ($i = 1; $i <= $n; $i++) {
  for ($j = 1; $j <= $n; $j++) {
    $a[$i][$j] = $i + $j;
    $b[$i][$j] = 2 * $i - $j;
  }
}
$c = multiply($a, $b, $n);
$trace = 0;
for ($i = 1; $i <= $n; $i++) $trace += $c[$i][$i];
echo $trace, ' ', $c[1][$n], ' ', $c[$n][1], "\n";
