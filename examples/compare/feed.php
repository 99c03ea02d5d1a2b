<?php
$text = @file_get_contents('http://127.0.0.1:8080/feed.xml');
$feed = $text ? @simplexml_load_string($text) : false;
?>
<!DOCTYPE html>
<title>Feed</title>
<ul>
<?php foreach ($feed ? $feed->channel->item : [] as $item): ?>
<li><?php if (str_starts_with($item->link, 'http')): ?><a href="<?= htmlspecialchars($item->link) ?>"><?= htmlspecialchars($item->title) ?></a><?php endif ?></li>
<?php endforeach ?>
</ul>
<?php if (!$feed): ?><p>There is no feed just now.</p><?php endif ?>
