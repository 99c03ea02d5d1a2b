<?php
function random($below) {
  global $seed;
  $seed = ($seed * 3877 + 29573) % 139968;
  return $seed % $below + 1;
}
function cycle(&$next, &$seen, $start) {
  $length = 0;
  $at = $start;
  while (!$seen[$at]) {
    $seen[$at] = true;
    $at = $next[$at];
    $length++;
  }
  return $length;
}

$n = (int)$argv[1];
$seed = 9;
$cycles = $longest = 0;
for ($i = 1; $i <= $n; $i++) {
  $next[$i] = $i;
  $seen[$i] = false;
}
for ($i = $n; $i >= 2; $i--) {
  $j = random($i);
  $kept = $next[$i];
  $next[$i] = $next[$j];
  $next[$j] = $kept;
}
for ($i = 1; $i <= $n; $i++) {
  $length = cycle($next, $seen, $i);
  if ($length) $cycles++;
  if ($length > $longest) $longest = $length;
}
$at = 1;
$sum = 0;
for ($step = 1; $step <= 2 * $n; $step++) {
  $at = $next[$at];
  $sum = ($sum + $at) % 1000003;
}
echo "$cycles $longest $sum\n";
