<?php
$name = $_POST['name'] ?? '';
$message = $_POST['message'] ?? '';
?>
<!DOCTYPE html>
<title>Write to us</title>
<?php if ($_SERVER['REQUEST_METHOD'] === 'POST'): ?>
<?php $sent = @mail('root@localhost', 'From the site', "$name writes:\n$message",
    ['Content-Type' => 'text/plain; charset=utf-8', 'From' => 'root@localhost']) ?>
<p><?= $sent ? 'Thank you, ' . htmlspecialchars($name) . '.' : 'That did not work.' ?></p>
<?php endif ?>
<form method="post">
<label>Name <input name="name" value="<?= htmlspecialchars($name) ?>"></label>
<label>Message <textarea name="message"><?= htmlspecialchars($message) ?></textarea></label>
<button>Send</button>
</form>
