<?php
$texts = [
    'en' => ['hello' => 'Welcome, {who}!', 'teas' => 'We have {count} teas.'],
    'de' => ['hello' => 'Willkommen, {who}!', 'teas' => 'Wir haben {count} Tees.'],
];
$language = 'en';
$best = 0;
foreach (explode(',', $_SERVER['HTTP_ACCEPT_LANGUAGE'] ?? '') as $range) {
    preg_match('/^\s*([a-z]+)[^;]*(?:;\s*q=([\d.]+))?/i', $range, $found);
    $weight = (float) ($found[2] ?? 1);
    if (isset($found[1], $texts[strtolower($found[1])]) && $weight > $best) {
        $language = strtolower($found[1]);
        $best = $weight;
    }
}
function text($token, $values) {
    global $texts, $language;
    foreach ($values as $name => $value) {
        $replaced['{' . $name . '}'] = htmlspecialchars($value);
    }
    return strtr($texts[$language][$token], $replaced);
}
?>
<!DOCTYPE html>
<html lang="<?= $language ?>">
<p><?= text('hello', ['who' => $_GET['name'] ?? '']) ?></p>
<p><?= text('teas', ['count' => 12]) ?></p>
