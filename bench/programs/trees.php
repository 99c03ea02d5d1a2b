<?php
function tree($depth, $value) {
  $node = ['value' => $value];
  if ($depth > 0) {
    $node['left'] = tree($depth - 1, 2 * $value);
    $node['right'] = tree($depth - 1, 2 * $value + 1);
  }
  return $node;
}
function total(&$node, $depth) {
  if ($depth == 0) return $node['value'];
  return $node['value'] + total($node['left'], $depth - 1) - total($node['right'], $depth - 1);
}
function leftmost(&$node) {
  if (!isset($node['left'])) return $node['value'];
  return leftmost($node['left']);
}

$depth = (int)$argv[1];
for ($i = 1; $i <= 6; $i++) {
  $root = tree($depth, $i);
  echo $i, ' ', total($root, $depth), ' ', leftmost($root), "\n";
}
