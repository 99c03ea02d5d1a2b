<?php
function sift(&$items, $root, $last) {
  while (2 * $root <= $last) {
    $child = 2 * $root;
    if ($child < $last && $items[$child]['price'] < $items[$child + 1]['price']) $child++;
    if ($items[$root]['price'] >= $items[$child]['price']) return;
    $kept = $items[$root];
    $items[$root] = $items[$child];
    $items[$child] = $kept;
    $root = $child;
  }
}
function heapsort(&$items, $n) {
  for ($i = intdiv($n, 2); $i >= 1; $i--) sift($items, $i, $n);
  for ($i = $n; $i >= 2; $i--) {
    $kept = $items[1];
    $items[1] = $items[$i];
    $items[$i] = $kept;
    sift($items, 1, $i - 1);
  }
}

$n = (int)$argv[1];
$seed = 5;
for ($i = 1; $i <= $n; $i++) {
  $seed = ($seed * 3877 + 29573) % 139968;
  $items[$i] = ['name' => "item $i", 'price' => $seed / 4];
}
heapsort($items, $n);
$check = 0;
for ($i = 1; $i <= $n; $i++) $check = ($check * 7 + (int)($items[$i]['price'] * 4)) % 1000003;
echo $items[1]['name'], ', ', $items[$n]['name'], ', ', $check, "\n";
