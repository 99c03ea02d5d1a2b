<?php
function next_state($state, $event) {
  if ($state == 'cart') {
    if ($event == 'pay') return 'paid';
    elseif ($event == 'cancel') return 'closed';
  } elseif ($state == 'paid') {
    if ($event == 'ship') return 'sent';
    elseif ($event == 'cancel' || $event == 'return') return 'refund';
  } elseif ($state == 'sent') {
    if ($event == 'arrive') return 'delivered';
    elseif ($event == 'return') return 'refund';
  } elseif ($state == 'delivered') {
    if ($event == 'return') return 'refund';
    elseif ($event != 'cancel') return 'closed';
  } elseif ($state == 'refund' && $event == 'pay') {
    return 'closed';
  }
  return $state;
}

$events = ['pay', 'ship', 'arrive', 'return', 'cancel'];
$n = (int)$argv[1];
$state = 'cart';
$seed = 11;
$orders = $changes = 0;
for ($i = 1; $i <= $n; $i++) {
  $seed = ($seed * 3877 + 29573) % 139968;
  $before = $state;
  $state = next_state($state, $events[$seed % 5]);
  if ($state != $before) $changes++;
  if ($state == 'closed') {
    $state = 'cart';
    $orders++;
  }
}
echo "$orders $changes $state\n";
