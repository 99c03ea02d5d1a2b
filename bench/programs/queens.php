<?php
function place($row, $n, &$column, &$up, &$down) {
  if ($row > $n) return 1;
  $found = 0;
  for ($c = 1; $c <= $n; $c++) {
    if (!($column[$c] || $up[$row + $c] || $down[$row - $c + $n])) {
      $column[$c] = $up[$row + $c] = $down[$row - $c + $n] = 1;
      $found += place($row + 1, $n, $column, $up, $down);
      $column[$c] = $up[$row + $c] = $down[$row - $c + $n] = 0;
    }
  }
  return $found;
}

$n = (int)$argv[1];
$column = $up = $down = array_fill(1, 2 * $n, 0);
echo place(1, $n, $column, $up, $down), "\n";
