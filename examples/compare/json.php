<?php
$answer = ['tea' => $_GET['tea'] ?? '', 'price' => 2.8, 'at' => gmdate('Y-m-d\TH:i:s\Z')];
header('Content-Type: application/json');
echo json_encode($answer), "\n";
