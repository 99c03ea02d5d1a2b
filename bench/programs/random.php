<?php
function random(&$state) {
  $state ^= ($state << 13) & 0x7FFFFFFF;
  $state ^= $state >> 17;
  $state ^= ($state << 5) & 0x7FFFFFFF;
  return $state;
}
function bits($number) {
  $count = 0;
  while ($number) {
    $number &= $number - 1;
    $count++;
  }
  return $count;
}

$n = (int)$argv[1];
$state = 2463534;
$low = 1;
$high = $set = $both = 0;
for ($i = 1; $i <= $n; $i++) {
  $number = random($state);
  $set += bits($number & 0xFFFF);
  $low = ($low + ($number & 0xFF)) % 65521;
  $high = ($low + $high) % 65521;
  if (($number & 1) && ($number & 0x400)) $both++;
}
echo "$set $both ", ($high << 8) | $low, "\n";
