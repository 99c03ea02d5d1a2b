<?php
function push(&$stack, $value) {
  $stack['size']++;
  $stack['items'][$stack['size']] = $value;
}
function take(&$stack) {
  $value = $stack['items'][$stack['size']];
  $stack['size']--;
  return $value;
}
function calculate(&$formula, $x) {
  $stack = ['size' => 0, 'items' => []];
  foreach ($formula as $token) {
    if ($token === 'x') {
      push($stack, $x);
    } elseif ($token === '+') {
      push($stack, take($stack) + take($stack));
    } elseif ($token === '*') {
      push($stack, take($stack) * take($stack));
    } elseif ($token === '-') {
      $right = take($stack);
      push($stack, take($stack) - $right);
    } elseif ($token === 'mod') {
      $right = take($stack);
      push($stack, take($stack) % $right);
    } else {
      push($stack, $token);
    }
  }
  return take($stack);
}

$formula = ['x', 3, '+', 'x', 7, '*', 2, '-', 'x', 'mod', 5, '+', '*', 1009, 'mod'];
$n = (int)$argv[1];
$sum = 0;
for ($x = 1; $x <= $n; $x++) $sum += calculate($formula, $x);
echo "$sum\n";
