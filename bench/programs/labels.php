<?php
function plural($count, $word) {
  if ($count == 1) return "1 $word";
  return "$count {$word}s";
}
function stock($count, $word) {
  if ($count == 0) return 'sold out';
  if ($count < 4) return 'only ' . plural($count, $word);
  return plural($count, $word);
}
function choose($wanted, $yes, $no) {
  if ($wanted) return $yes;
  return $no;
}
function element($name, $text) {
  return "<$name>$text</$name>";
}
function later($a, $b) {
  return choose($a > $b, $a, $b);
}

$n = (int)$argv[1];
$last = '';
$few = $bold = 0;
for ($i = 1; $i <= $n; $i++) {
  $word = choose($i % 3, 'cup', 'pot');
  $label = element(choose($i % 7 == 0, 'b', 'i'), stock($i % 11, $word));
  if (strpos($label, 'only') !== false && $word == 'cup') $few++;
  if ($label == '<b>sold out</b>') $bold++;
  $last = later($label, $last);
}
echo "$few $bold $last $label\n";
