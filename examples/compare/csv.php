<?php
$file = fopen('data/teas.csv', 'r');
$total = 0;
?>
<!DOCTYPE html>
<title>Teas</title>
<table>
<?php while (($tea = fgetcsv($file, null, ',', '"', '')) !== false): ?>
<tr><td><?= htmlspecialchars($tea[0]) ?></td><td><?= number_format($tea[1], 2, '.', '') ?></td></tr>
<?php $total += $tea[1] ?>
<?php endwhile ?>
<tr><th>Total</th><th><?= number_format($total, 2, '.', '') ?></th></tr>
</table>
