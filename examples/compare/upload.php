<?php
@mkdir('data/files');
$file = $_FILES['file'] ?? null;
if ($file && $file['error'] === UPLOAD_ERR_OK && $file['size'] <= 1000000) {
    move_uploaded_file($file['tmp_name'], 'data/files/' . hash('sha256', $file['name']));
}
?>
<!DOCTYPE html>
<title>Files</title>
<form method="post" enctype="multipart/form-data">
<input type="file" name="file"> <button>Send</button>
</form>
<ul>
<?php foreach (glob('data/files/*') as $path): ?>
<li><?= htmlspecialchars(basename($path)) ?>, <?= filesize($path) ?> bytes</li>
<?php endforeach ?>
</ul>
