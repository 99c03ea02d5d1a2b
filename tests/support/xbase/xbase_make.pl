# Makes a table with DBD::XBase's own module.
use strict;
use warnings;
use XBase;

my ($path) = @ARGV;
(my $memos = $path) =~ s/dbf$/dbt/;
my $table = XBase->create(
  name => $path, memofile => $memos, version => 3, memo_version => 3,
  field_names => [qw(NAME AMOUNT DAY PAID NOTE)], field_types => [qw(C N D L M)],
  field_lengths => [10, 8, 8, 1, 10], field_decimals => [0, 2, 0, 0, 0]) or die XBase->errstr;
$table->set_record(0, 'Ann', 12.5, '20240131', 1, "first memo\nline two");
$table->set_record(1, 'Bob', -3, '20231231', 0, 'x' x 600);
$table->set_record(2, 'Cid', undef, undef, undef, '');
$table->set_record(3, 'Eve', 1, undef, 1, 'z' x 512);
$table->delete_record(1);
$table->close;
