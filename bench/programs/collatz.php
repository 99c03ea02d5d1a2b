<?php
function longest($limit) {
  $steps = [1 => 0];
  $most = 0;
  $start = 1;
  for ($i = 2; $i <= $limit; $i++) {
    $x = $i;
    $count = 0;
    while ($x >= $i) {
      if ($x % 2) $x = 3 * $x + 1;
      else $x = intdiv($x, 2);
      $count++;
    }
    $steps[$i] = $count + $steps[$x];
    if ($steps[$i] > $most) {
      $most = $steps[$i];
      $start = $i;
    }
  }
  return "$start $most";
}

$n = (int)$argv[1];
for ($k = 1; $k <= 10; $k++) echo longest(intdiv($n, 10) * $k), "\n";
