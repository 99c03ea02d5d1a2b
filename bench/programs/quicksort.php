<?php
function quicksort(&$a, $low, $high) {
  if ($low >= $high) return;
  $i = $low;
  $j = $high;
  $pivot = $a[intdiv($low + $high, 2)];
  while ($i <= $j) {
    while ($a[$i] < $pivot) $i++;
    while ($a[$j] > $pivot) $j--;
    if ($i <= $j) {
      $kept = $a[$i];
      $a[$i] = $a[$j];
      $a[$j] = $kept;
      $i++;
      $j--;
    }
  }
  quicksort($a, $low, $j);
  quicksort($a, $i, $high);
}

$n = (int)$argv[1];
$seed = 42;
$list = [];
for ($i = 1; $i <= $n; $i++) {
  $seed = ($seed * 3877 + 29573) % 139968;
  $list[$i] = $seed;
}
quicksort($list, 1, $n);
$check = 0;
for ($i = 1; $i <= $n; $i++) $check = ($check * 7 + $list[$i]) % 1000003;
echo "$list[1] $list[$n] $check\n";
