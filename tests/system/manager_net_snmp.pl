# Reads a running agent with Perl's Net::SNMP and prints what it sees, one line for each varbind.
#
# usage: manager_net_snmp.pl PORT next ROOT        a walk by GETNEXT
#        manager_net_snmp.pl PORT bulk N ROOT      a walk by GETBULK of N repetitions
#        manager_net_snmp.pl PORT get OID...       one GET for all
#        manager_net_snmp.pl PORT walks COUNT N ROOT...
#            so many walks, of each root in turn, by GETBULK of N repetitions: before each a line
#            "walk BEGIN ROOT", behind it "end END", in seconds of CLOCK_MONOTONIC
#
# A line is "OID INTEGER NUMBER" or "OID OCTETS HEX" (HEX may be empty).
use strict;
use warnings;
use Net::SNMP qw(:asn1 oid_base_match);
use Time::HiRes qw(clock_gettime CLOCK_MONOTONIC);

my ($port, $command, @arguments) = @ARGV;
my ($session, $error) = Net::SNMP->session(
  -hostname => '127.0.0.1', -port => $port, -version => 'snmpv2c', -community => 'public',
  -timeout => 10, -retries => 0, -maxmsgsize => 65535, -translate => 0);
die "$error\n" unless $session;

# Asks once; returns [name, type, value] for each varbind of the answer, in its order.
sub ask {
  my ($method, @options) = @_;
  my $values = $session->$method(@options) or die $session->error() . "\n";
  my $types = $session->var_bind_types();
  return map { [$_, $types->{$_}, $values->{$_}] } $session->var_bind_names();
}

sub show {
  my ($name, $type, $value) = @{$_[0]};
  print "$name ", $type == OCTET_STRING ? 'OCTETS ' . unpack('H*', $value)
    : $type == INTEGER ? "INTEGER $value" : "type $type", "\n";
}

# Asks for what comes next until it is outside the root.
sub walk {
  my ($root, @request) = @_;
  my $name = $root;
  while (1) {
    for my $varbind (ask(@request, -varbindlist => [$name])) {
      return if $varbind->[1] == ENDOFMIBVIEW || !oid_base_match($root, $varbind->[0]);
      show($varbind);
      $name = $varbind->[0];
    }
  }
}

sub walks {
  my ($count, $repetitions, @roots) = @_;
  for my $number (0 .. $count - 1) {
    my $root = $roots[$number % @roots];
    printf "walk %.6f %s\n", clock_gettime(CLOCK_MONOTONIC), $root;
    walk($root, 'get_bulk_request', -maxrepetitions => $repetitions);
    printf "end %.6f\n", clock_gettime(CLOCK_MONOTONIC);
  }
}

if ($command eq 'walks') {
  walks(@arguments);
} elsif ($command eq 'next') {
  walk($arguments[0], 'get_next_request');
} elsif ($command eq 'bulk') {
  walk($arguments[1], 'get_bulk_request', -maxrepetitions => $arguments[0]);
} else {
  show($_) for ask('get_request', -varbindlist => \@arguments);
}
