# For compare: the same rules in the form of each program.

# Rule number n: "plain" is tcp from 10.x.y.z, port 1024 + n; "mixed" takes turns with udp, no protocol and port, and a
# range of ports. Direction "in" throughout.
each_rule() { # FORMS FIRST COUNT AWK-STATEMENT with address a, protocol t, port or range s
    awk -v forms="$1" -v first="$2" -v count="$3" "BEGIN { for (n = first; n < first + count; ++n) {
        a = \"10.\" int(n / 65536) % 256 \".\" int(n / 256) % 256 \".\" n % 256; t = \"tcp\"; s = 1024 + n % 60000
        if (forms == \"mixed\" && n % 4 == 1) t = \"udp\"
        if (forms == \"mixed\" && n % 4 == 2) t = s = \"\"
        if (forms == \"mixed\" && n % 4 == 3) s = s \":\" s + 9
        $4 } }"
}
list_of() { each_rule plain "$1" "$2" 'printf "%s%s:%s:%s:in", (n > first ? ";" : ""), t, a, s'; }
sql_of() { # FORMS COUNT
    echo 'PRAGMA journal_mode=PERSIST; CREATE TABLE IF NOT EXISTS firewall_rules (protocol TEXT, domain TEXT, port TEXT,
        direction INTEGER NOT NULL, is_allowed INTEGER NOT NULL,
        PRIMARY KEY (protocol, domain, port) ON CONFLICT REPLACE); BEGIN;'
    each_rule "$1" 0 "$2" "printf \"INSERT INTO firewall_rules VALUES('%s','%s','%s',1,0);\\n\", t, a, s"
    echo 'COMMIT;'
}
chains_as_iptables="-N VPK-ALLOW
-N VPK-DENY
-A INPUT -j VPK-ALLOW
-A OUTPUT -j VPK-ALLOW
-A INPUT -j VPK-DENY
-A OUTPUT -j VPK-DENY
-N VPK-LOGANDDROP
-A VPK-LOGANDDROP -j LOG --log-prefix IPTables-Dropped:
-A VPK-LOGANDDROP -j DROP"
iptables_of() { # FORMS COUNT, as for all of these
    echo "$chains_as_iptables"
    each_rule "$1" 0 "$2" 'print "-A VPK-DENY" (t == "" ? "" : " -p " t) " -s " a (s == "" ? "" : " --sport " s) " -j VPK-LOGANDDROP"'
}
restore_of() {
    printf '*filter\n'
    iptables_of "$1" "$2"
    printf 'COMMIT\n'
}
# The same when the chains stand already: emptied, filled anew, hooks in their place.
restore_again_of() {
    printf '*filter\n-F VPK-ALLOW\n-F VPK-DENY\n-F VPK-LOGANDDROP\n'
    local chain hook
    for chain in INPUT OUTPUT; do
        for hook in VPK-ALLOW VPK-DENY; do
            echo "-D $chain -j $hook"
        done
    done
    iptables_of "$1" "$2" | grep -v '^-N'
    printf 'COMMIT\n'
}
nft_of() {
    echo 'table ip filter {
        chain INPUT { type filter hook input priority filter; policy accept; }
        chain OUTPUT { type filter hook output priority filter; policy accept; }
        chain VPK-ALLOW { }
        chain VPK-LOGANDDROP { counter log prefix "IPTables-Dropped:" level warn; counter drop; }
        chain VPK-DENY {'
    each_rule "$1" 0 "$2" 'sub(":", "-", s); print "ip saddr " a (t == "" ? "" : " " t " sport " s) " counter jump VPK-LOGANDDROP"'
    printf '}\n}\n'
    local chain hook
    for hook in VPK-ALLOW VPK-DENY; do
        for chain in INPUT OUTPUT; do
            echo "add rule ip filter $chain counter jump $hook"
        done
    done
}
# A file of each form; "restore 10000" is called restore.10000.plain.
make_rules() { # COUNT FORMS
    local form file
    for form in iptables restore restore_again nft; do
        file=$work/rules/$form.$1.$2
        [ -e "$file" ] || ${form}_of "$2" "$1" >"$file"
    done
}
