<?php
$n = (int)$argv[1];
for ($row = 1; $row <= $n; $row++) {
  for ($column = 1; $column <= 2 * $n; $column++) {
    $a = 1.5 * $column / $n - 2.2;
    $b = 2.4 * $row / $n - 1.2;
    $x = $y = 0.0;
    $turns = 0;
    while ($turns < 50 && $x * $x + $y * $y < 4) {
      $next = $x * $x - $y * $y + $a;
      $y = 2 * $x * $y + $b;
      $x = $next;
      $turns++;
    }
    if ($turns == 50) echo '#';
    elseif ($turns > 9) echo '+';
    else echo '.';
  }
  echo "\n";
}
