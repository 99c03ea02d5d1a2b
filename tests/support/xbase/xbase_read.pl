# Prints the records of a table as DBD::XBase's own module finds them.
use strict;
use warnings;
use XBase;

my $table = XBase->new($ARGV[0]) or die XBase->errstr;
for my $i (0 .. $table->last_record) {
  my ($deleted, $name, $amount, $day, $paid, $note) = $table->get_record($i);
  $name =~ s/ +$//;
  $note = '' unless defined $note;
  (my $head = substr($note, 0, 12)) =~ s/\n/\//g;
  print join('|', $deleted ? '*' : '', $name, defined $amount && $amount ne '' ? sprintf('%.2f', $amount) : '',
             defined $day && $day =~ /\d{8}/ ? $day : '', defined $paid ? ($paid ? 'T' : 'F') : '', length $note, $head), "\n";
}
$table->close;
