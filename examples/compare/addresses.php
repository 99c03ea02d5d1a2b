<?php
$list = new PDO('sqlite:data/list.db');
$list->exec('CREATE TABLE IF NOT EXISTS list (name TEXT, city TEXT)');
$list->exec('CREATE INDEX IF NOT EXISTS names ON list (name)');
if ($_SERVER['REQUEST_METHOD'] === 'POST') {
    $add = $list->prepare('INSERT INTO list VALUES (?, ?)');
    $add->execute([$_POST['name'] ?? '', $_POST['city'] ?? '']);
    header('Location: addresses.php', true, 303);
    exit;
}
$search = $_GET['search'] ?? '';
$first = max(0, (int) ($_GET['from'] ?? 0));
$found = $list->prepare('SELECT * FROM list WHERE substr(name, 1, length(?1)) = ?1 ORDER BY name LIMIT 10 OFFSET ?2');
$found->bindValue(1, $search);
$found->bindValue(2, $first, PDO::PARAM_INT);
$found->execute();
?>
<!DOCTYPE html>
<title>Addresses</title>
<form><input name="search" value="<?= htmlspecialchars($search) ?>"> <button>Search</button></form>
<table>
<?php foreach ($found as $row): ?>
<tr><td><?= htmlspecialchars($row['name']) ?></td><td><?= htmlspecialchars($row['city']) ?></td></tr>
<?php endforeach ?>
</table>
<p><a href="?search=<?= urlencode($search) ?>&amp;from=<?= $first + 10 ?>">Next</a></p>
<form method="post">
<input name="name" required> <input name="city"> <button>Add</button>
</form>
