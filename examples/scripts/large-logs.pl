#!/usr/bin/perl
# Reports log files that have grown large or that nobody has written to for a long time. Nothing
# is removed.
#
#   large-logs.pl DIRECTORY LARGE_MIB OLD_DAYS
#
# Links are not followed; directories that may not be read are counted and skipped.
#
# Exit status: 0 the report stands, 2 wrong arguments or no such directory.

use strict;
use warnings;

my $listed_at_most = 10;

if (@ARGV != 3 || $ARGV[1] !~ /\A\d+\z/ || $ARGV[2] !~ /\A\d+\z/) {
    print STDERR "usage: large-logs.pl DIRECTORY LARGE_MIB OLD_DAYS\n";
    exit 2;
}
my ($top, $large_mib, $old_days) = @ARGV;
if (!-d $top) {
    print STDERR "large-logs.pl: no such directory: $top\n";
    exit 2;
}

my ($files, $bytes, $closed) = (0, 0, 0);
my @remarkable;
my @pending = ($top);
while (defined(my $directory = pop @pending)) {
    my $handle;
    if (!opendir($handle, $directory)) {
        $closed++;
        next;
    }
    for my $name (sort grep { $_ ne '.' && $_ ne '..' } readdir $handle) {
        my $path = "$directory/$name";
        my @entry = lstat $path or next;
        if (-d _) {
            push @pending, $path;
        } elsif (-f _) {
            my ($size, $modified) = @entry[7, 9];
            my $age = int((time - $modified) / 86400);
            $files++;
            $bytes += $size;
            my $is_large = $size >= $large_mib * 1024 * 1024;
            my $is_old = $age >= $old_days;
            push @remarkable, [$size, $age, $path] if $is_large || $is_old;
        }
    }
    closedir $handle;
}

printf "%s: %d files, %.1f MiB; %d of at least %d MiB or untouched for %d days\n",
    $top, $files, $bytes / 1048576, scalar @remarkable, $large_mib, $old_days;
my @largest = sort { $b->[0] <=> $a->[0] || $a->[2] cmp $b->[2] } @remarkable;
for my $entry (grep { defined } @largest[0 .. $listed_at_most - 1]) {
    printf "  %9.1f MiB  %5d days  %s\n", $entry->[0] / 1048576, $entry->[1], $entry->[2];
}
printf "  and %d more\n", @largest - $listed_at_most if @largest > $listed_at_most;
print "  $closed directories may not be read by this user\n" if $closed;
exit 0;
