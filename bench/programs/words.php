<?php
function count_word(&$words, $word) {
  $words[$word] = ($words[$word] ?? 0) + 1;
}
function frequency(&$words, $word) {
  return $words[$word] ?? 0;
}

$syllables = ['ka', 'to', 'mi', 're', 'su', 'na', 'lo', 'vi'];
$n = (int)$argv[1];
$seed = 7;
$text = '';
$first = 0;
$words = [];
for ($i = 1; $i <= $n; $i++) {
  $seed = ($seed * 3877 + 29573) % 139968;
  $second = intdiv($seed, 11) % 8;
  $word = $syllables[$first] . $syllables[$second];
  $first = $second;
  $text .= $word . ' ';
  count_word($words, $word);
}
foreach ($syllables as $a) {
  foreach ($syllables as $b) {
    $at = strpos($text, $a . $b);
    echo $a . $b, ' ', frequency($words, $a . $b), ' ', $at === false ? 0 : $at + 1, "\n";
  }
}
