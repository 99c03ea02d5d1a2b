<?php
$db = new PDO('sqlite:data/signin.db');
$db->exec('CREATE TABLE IF NOT EXISTS users (name TEXT PRIMARY KEY, hash TEXT)');
$db->exec('CREATE TABLE IF NOT EXISTS sessions (token TEXT PRIMARY KEY, user TEXT, ends INTEGER)');
if (!$db->query('SELECT 1 FROM users')->fetch()) {
    $add = $db->prepare('INSERT INTO users VALUES (?, ?)');
    $add->execute(['ada', password_hash('change me', PASSWORD_DEFAULT)]);
}
if ($_SERVER['REQUEST_METHOD'] === 'POST') {
    $find = $db->prepare('SELECT * FROM users WHERE name = ?');
    $find->execute([$_POST['name'] ?? '']);
    $user = $find->fetch();
    if ($user && password_verify($_POST['password'] ?? '', $user['hash'])) {
        $token = bin2hex(random_bytes(32));
        $add = $db->prepare('INSERT INTO sessions VALUES (?, ?, ?)');
        $add->execute([hash('sha256', $token), $user['name'], time() + 3600]);
        setcookie('session', $token, ['expires' => time() + 3600, 'path' => '/', 'httponly' => true, 'samesite' => 'Lax']);
        header('Location: signin.php', true, 303);
        exit;
    }
}
$find = $db->prepare('SELECT user FROM sessions WHERE token = ? AND ends > ?');
$find->execute([hash('sha256', $_COOKIE['session'] ?? ''), time()]);
$member = $find->fetchColumn();
?>
<!DOCTYPE html>
<title>Sign-in</title>
<?php if ($member !== false): ?>
<p>Hello, <?= htmlspecialchars($member) ?>!</p>
<?php else: ?>
<form method="post">
<input name="name"> <input name="password" type="password"> <button>Sign in</button>
</form>
<?php endif ?>
