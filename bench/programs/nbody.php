<?php
function attract(&$a, &$b, $days) {
  $dx = $a['x'] - $b['x'];
  $dy = $a['y'] - $b['y'];
  $dz = $a['z'] - $b['z'];
  $pull = $days / ($dx * $dx + $dy * $dy + $dz * $dz) ** 1.5;
  $a['vx'] -= $dx * $b['mass'] * $pull;
  $b['vx'] += $dx * $a['mass'] * $pull;
  $a['vy'] -= $dy * $b['mass'] * $pull;
  $b['vy'] += $dy * $a['mass'] * $pull;
  $a['vz'] -= $dz * $b['mass'] * $pull;
  $b['vz'] += $dz * $a['mass'] * $pull;
}
function body($mass, $x, $y, $z, $vx, $vy, $vz) {
  return compact('mass', 'x', 'y', 'z', 'vx', 'vy', 'vz');
}

$bodies = [
  body(39.478, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0),
  body(0.0377, 4.841, -1.160, -0.1036, 0.6063, 2.8120, -0.0252),
  body(0.0113, 8.343, 4.125, -0.4035, -1.0108, 1.8257, 0.0084),
  body(0.0017, 12.894, -15.111, -0.2233, 1.0828, 0.8687, -0.0108),
  body(0.0020, 15.380, -25.919, 0.1793, 0.9791, 0.5946, -0.0348),
];
$steps = (int)$argv[1];
for ($step = 1; $step <= $steps; $step++) {
  for ($i = 0; $i < 4; $i++) {
    for ($j = $i + 1; $j < 5; $j++) attract($bodies[$i], $bodies[$j], 0.01);
  }
  foreach ($bodies as &$body) {
    $body['x'] += 0.01 * $body['vx'];
    $body['y'] += 0.01 * $body['vy'];
    $body['z'] += 0.01 * $body['vz'];
  }
  unset($body);
}
foreach ($bodies as $body) printf("%.6f %.6f %.6f\n", $body['x'], $body['y'], $body['z']);
