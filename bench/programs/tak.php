<?php
function tak($x, $y, $z) {
  if ($y >= $x) return $z;
  return tak(tak($x - 1, $y, $z), tak($y - 1, $z, $x), tak($z - 1, $x, $y));
}

echo tak((int)$argv[1], 16, 8), "\n";
