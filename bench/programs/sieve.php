<?php
$n = (int)$argv[1];
$count = $last = 0;
$prime = [];
for ($i = 2; $i <= $n; $i++) $prime[$i] = true;
for ($i = 2; $i <= $n; $i++) {
  if ($prime[$i]) {
    $count++;
    $last = $i;
    for ($j = $i * $i; $j <= $n; $j += $i) $prime[$j] = false;
  }
}
echo "$count $last\n";
