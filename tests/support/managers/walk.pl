#!/usr/bin/perl
# Walks a subtree with Perl's Net::SNMP, and prints what it found as one JSON list of [OID, type, value].
#
# Usage: perl walk.pl PORT ROOT getnext|getbulk
# Types are BER tags. Values: numbers as decimal text, texts as hexadecimal bytes, addresses as they are shown.
use strict;
use warnings;

use JSON::PP;
use Net::SNMP qw(:asn1 oid_base_match oid_lex_sort);

use constant REPETITIONS => 20;
use constant MAX_MESSAGE_BYTES => 65535;    # a description may be longer than the 1,472 that it would take by itself

my ($port, $root, $method) = @ARGV;

my ($session, $error) = Net::SNMP->session(
    -hostname   => '127.0.0.1',
    -port       => $port,
    -community  => 'public',
    -version    => 'snmpv2c',
    -retries    => 0,
    -maxmsgsize => MAX_MESSAGE_BYTES,
    -translate  => 0,                           # texts as the bytes that came
);
die "walk.pl: $error\n" if !defined $session;

sub ask {
    my ($oid) = @_;
    my $answer = $method eq 'getbulk'
        ? $session->get_bulk_request(-varbindlist => [$oid], -maxrepetitions => REPETITIONS)
        : $session->get_next_request(-varbindlist => [$oid]);
    die 'walk.pl: ' . $session->error() . "\n" if !defined $answer;
    return $answer;
}

sub shown {
    my ($type, $value) = @_;
    return $type == OCTET_STRING ? unpack('H*', $value) : "$value";
}

my @found;
my $last = $root;
my $inside = 1;
while ($inside) {
    my $answer = ask($last);
    my $types = $session->var_bind_types();
    for my $oid (oid_lex_sort(keys %{$answer})) {
        $inside = oid_base_match($root, $oid) && $types->{$oid} != ENDOFMIBVIEW;
        last if !$inside;
        push @found, [$oid, $types->{$oid}, shown($types->{$oid}, $answer->{$oid})];
        $last = $oid;
    }
}
$session->close();
print encode_json(\@found), "\n";
