<?php
$file = fopen('data/counter.txt', 'c+');
flock($file, LOCK_EX);
$cups = (int) stream_get_contents($file);
if ($_SERVER['REQUEST_METHOD'] === 'POST') {
    $cups++;
    rewind($file);
    fwrite($file, $cups);
}
fclose($file);
?>
<!DOCTYPE html>
<title>Counter</title>
<p><?= $cups ?> cups of tea so far.</p>
<form method="post"><button>One more</button></form>
