<?php
// What store.zpa does, as a PHP page would: through PDO with prepared statements, each of them a transaction.
// usage: php store.php FOLDER RECORDS [DSN], where DSN is that of a PostgreSQL server; without it SQLite is used, with a
// write-ahead log and without waiting for the disk.
require __DIR__ . '/clock.php';
[, $dir, $n] = $argv;
$n = (int)$n;
$rows = $look = [];
for ($i = 0; $i < $n; $i++) {
    $rows[] = [$i, sprintf('customer %06d', ($i * 7919 + 12345) % 100003), ($i * 37 % 1000000) / 100,
               sprintf('%04d%02d%02d', 2020 + $i % 5, 1 + $i % 12, 1 + $i % 28)];
}
for ($r = 12345, $i = 0; $i < $n; $i++) {
    $r = ($r * 1103515245 + 12345) & 0x7FFFFFFF;
    $look[] = $rows[($r >> 8) % $n][1];
}
if (isset($argv[3])) {
    $db = new PDO($argv[3]);
    $db->exec('drop table if exists s');
} else {
    $db = new PDO("sqlite:$dir/store.db");
    $db->exec('pragma synchronous=OFF');
    $db->query('pragma journal_mode=WAL')->fetchAll();
}
$db->setAttribute(PDO::ATTR_ERRMODE, PDO::ERRMODE_EXCEPTION);
$db->exec('create table s(id numeric(10,0), name varchar(30), amount numeric(9,2), d char(8))');
$db->exec('create index s_name on s(name)');
timed('insert', $n, function () use ($db, $rows) {
    $insert = $db->prepare('insert into s values(?,?,?,?)');
    foreach ($rows as $row) $insert->execute($row);
});
$sum = timed('lookup', $n, function () use ($db, $look) {
    $find = $db->prepare('select id, name, amount, d from s where name=?');
    $sum = 0;
    foreach ($look as $wanted) {
        $find->execute([$wanted]);
        [$id, $name, $amount, $date] = $find->fetch(PDO::FETCH_NUM);
        $sum += $id;
        $find->closeCursor();
    }
    return $sum;
});
[$hash, $count] = timed('scan', $n, function () use ($db) {
    $hash = $count = 0;
    foreach ($db->query('select id, name, amount, d from s order by name', PDO::FETCH_NUM) as $row) {
        [$id, $name, $amount, $date] = $row;
        $hash = ($hash * 31 + $id) % 1000003;
        $count++;
    }
    return [$hash, $count];
});
echo json_encode(['n' => $n, 'us' => $us, 'sum' => [$sum, $hash, $count]]), "\n";
