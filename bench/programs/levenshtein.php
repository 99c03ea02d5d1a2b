<?php
function word($length, $seed) {
  $letters = ['a', 'c', 'g', 't'];
  $made = [];
  for ($i = 1; $i <= $length; $i++) {
    $seed = ($seed * 3877 + 29573) % 139968;
    $made[$i] = $letters[intdiv($seed, 17) % 4];
  }
  return $made;
}
function distance(&$a, &$b, $length) {
  $above = range(0, $length);
  for ($i = 1; $i <= $length; $i++) {
    $row[0] = $i;
    for ($j = 1; $j <= $length; $j++) {
      $best = $above[$j - 1];
      if ($a[$i] != $b[$j]) {
        if ($above[$j] < $best) $best = $above[$j];
        if ($row[$j - 1] < $best) $best = $row[$j - 1];
        $best++;
      }
      $row[$j] = $best;
    }
    $above = $row;
  }
  return $above[$length];
}

$length = (int)$argv[1];
$first = word($length, 1);
for ($seed = 2; $seed <= 5; $seed++) {
  $second = word($length, $seed);
  echo distance($first, $second, $length), "\n";
}
