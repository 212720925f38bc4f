#!/usr/bin/perl
# Writes two small MaxMind DB files for kobreportd's tests into DIR:
# asn.mmdb and country.mmdb, over documentation networks only.
#   make_test_mmdb.pl DIR
# Exits 77 (skipped) when Debian's libmaxmind-db-writer-perl is missing.
use strict;
use warnings;

unless (eval { require MaxMind::DB::Writer::Tree; 1 }) {
    print "skipped: MaxMind::DB::Writer is not installed (libmaxmind-db-writer-perl)\n";
    exit 77;
}
my $dir = shift or die "usage: $0 DIR\n";

# Three autonomous systems in two countries.
my @networks = (
    ['192.0.2.0/24',    64500, 'Example Telecom', 'JP'],
    ['198.51.100.0/24', 64501, 'Sample Broadband', 'JP'],
    ['203.0.113.0/24',  64502, 'Demo Mobile',      'DE'],
);

sub tree {
    my ($type, %types) = @_;
    return MaxMind::DB::Writer::Tree->new(
        ip_version            => 6,
        record_size           => 24,
        database_type         => $type,
        languages             => ['en'],
        description           => { en => "kobreportd test $type" },
        # The documentation networks are reserved ones: kept on purpose.
        remove_reserved_networks => 0,
        map_key_type_callback => sub { $types{ $_[0] } },
    );
}

sub write_tree {
    my ($tree, $file) = @_;
    open my $fh, '>:raw', "$dir/$file" or die "cannot write $dir/$file: $!\n";
    $tree->write_tree($fh);
    close $fh or die "cannot write $dir/$file: $!\n";
}

my $asn = tree('Test-ASN',
    autonomous_system_number       => 'uint32',
    autonomous_system_organization => 'utf8_string');
my $country = tree('Test-Country', country => 'map', iso_code => 'utf8_string');
for my $n (@networks) {
    my ($net, $number, $name, $iso) = @$n;
    $asn->insert_network($net,
        { autonomous_system_number => $number, autonomous_system_organization => $name });
    $country->insert_network($net, { country => { iso_code => $iso } });
}
write_tree($asn, 'asn.mmdb');
write_tree($country, 'country.mmdb');
