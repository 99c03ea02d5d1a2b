<?php
// What walks.zpa does, as a PHP page would: SQLite through PDO with prepared statements, autocommit, a write-ahead
// log, and no waiting for the disk. usage: php walks.php FOLDER RECORDS
require __DIR__ . '/clock.php';
[, $dir, $n] = $argv;
$n = (int)$n;
$rows = $look = [];
for ($i = 0; $i < $n; $i++) {
    $rows[] = [$i, sprintf('customer %06d', ($i * 7919 + 12345) % 100003), ($i * 37 % 1000000) / 100,
               sprintf('%04d%02d%02d', 2020 + $i % 5, 1 + $i % 12, 1 + $i % 28), (int)($i % 3 != 0), "a note on record $i"];
}
for ($r = 12345, $i = 0; $i < $n / 10; $i++) {
    $r = ($r * 1103515245 + 12345) & 0x7FFFFFFF;
    $look[] = $rows[($r >> 8) % $n][1];
}
$db = new PDO("sqlite:$dir/walks.db", null, null, [PDO::ATTR_ERRMODE => PDO::ERRMODE_EXCEPTION]);
$db->exec('pragma synchronous=OFF');
$db->query('pragma journal_mode=WAL')->fetchAll();
$db->exec('create table t(id integer, name char(30), amount number(10,2), d date, paid integer, note text)');
$db->exec('create index t_amount on t(amount)');
$db->exec('create index t_name on t(name)');
timed('insert', $n, function () use ($db, $rows) {
    $insert = $db->prepare('insert into t values(?,?,?,?,?,?)');
    foreach ($rows as $row) $insert->execute($row);
});
$back = timed('backwards', $n, function () use ($db) {
    $hash = 0;
    foreach ($db->query('select id, name, amount, d from t order by name desc', PDO::FETCH_NUM) as $row) $hash = ($hash * 31 + $row[0]) % 1000003;
    return $hash;
});
$letters = timed('all columns', $n, function () use ($db) {
    $count = 0;
    foreach ($db->query('select id, name, amount, d, paid, note from t order by amount', PDO::FETCH_NUM) as $row) if ($row[4]) $count++;
    return $count;
});
$sum = timed('find and ten', count($look), function () use ($db, $look) {
    $find = $db->prepare('select id from t where name>=? order by name limit 10');
    $sum = 0;
    foreach ($look as $name) {
        $find->execute([$name]);
        while ($row = $find->fetch(PDO::FETCH_NUM)) $sum += $row[0];
        $find->closeCursor();
    }
    return $sum;
});
timed('update', count($look), function () use ($db, $look) {
    $update = $db->prepare('update t set amount=? where name=?');
    foreach ($look as $i => $name) $update->execute([$i + 1, $name]);
});
$hash = timed('table', $n, function () use ($db) {
    $hash = 0;
    foreach ($db->query('select id, name from t', PDO::FETCH_NUM) as $row) $hash = ($hash * 31 + $row[0]) % 1000003;
    return $hash;
});
$passed = timed('filter', $n, function () use ($db) {
    $count = 0;
    foreach ($db->query('select id from t where paid = 0 and d > 20200000', PDO::FETCH_NUM) as $row) $count++;
    return $count;
});
echo json_encode(['n' => $n, 'us' => $us, 'sum' => [$back, $letters, $sum, $hash, $passed]]), "\n";
