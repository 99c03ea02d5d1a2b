<?php
// The clock of the measurements in PHP: timed($what, $count, $work) notes in $us the microseconds of one of
// $count steps, on the wall and of the processor.
$us = [];
function cpu() { $u = getrusage(); return $u['ru_utime.tv_sec'] + $u['ru_stime.tv_sec'] + ($u['ru_utime.tv_usec'] + $u['ru_stime.tv_usec']) / 1e6; }
function timed($what, $count, $work) {
    global $us;
    [$wall, $cpu] = [microtime(true), cpu()];
    $result = $work();
    $us[$what] = [(microtime(true) - $wall) / $count * 1e6, (cpu() - $cpu) / $count * 1e6];
    return $result;
}
