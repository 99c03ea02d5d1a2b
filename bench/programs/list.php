<?php
$teas = ['Assam', 'Darjeeling', 'Sencha', 'Rooibos', 'Keemun'];
$n = (int)$argv[1];
$total = 0;
?>
<table>
<?php for ($i = 1; $i <= $n; $i++): ?>
<?php $price = 2 + $i % 97 / 7; $total += $price; ?>
<tr class="<?= $i % 2 ? 'odd' : 'even' ?>">
  <td><?= $i ?></td>
  <td><?= $teas[$i % 5] ?></td>
  <td><?= sprintf('%.2f', $price) ?></td>
  <td><?= sprintf('%.2f', $total) ?></td>
</tr>
<?php endfor ?>
</table>
