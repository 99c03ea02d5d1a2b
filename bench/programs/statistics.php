<?php
function mean($list, $count) {
  $sum = 0;
  for ($i = 1; $i <= $count; $i++) $sum += $list[$i];
  return $sum / $count;
}
function variance($list, $count) {
  $sum = 0;
  $middle = mean($list, $count);
  foreach ($list as $number) $sum += ($number - $middle) * ($number - $middle);
  return $sum / $count;
}
function largest($list) {
  $most = $list[1];
  foreach ($list as $number) {
    if ($number > $most) $most = $number;
  }
  return $most;
}
function middle($list, $a, $b, $c) {
  return $list[$a] + $list[$b] + $list[$c];
}

$n = (int)$argv[1];
$seed = 3;
$total = 0;
for ($i = 1; $i <= 100; $i++) {
  $seed = ($seed * 3877 + 29573) % 139968;
  $list[$i] = $seed;
}
for ($turn = 1; $turn <= $n; $turn++) {
  $seed = ($seed * 3877 + 29573) % 139968;
  $list[$turn % 100 + 1] = $seed;
  $total = $total + mean($list, 100) + variance($list, 100) / 100000 + largest($list);
  for ($k = 1; $k <= 5; $k++) $total += middle($list, $k, 50 + $k, 101 - $k);
}
printf("%.3f\n", $total);
