# For compare: ufw and firewalld, started and stopped with settings of their own.

have_ufw() { installed ufw; }
have_firewalld() { installed firewalld && installed firewall-cmd && installed dbus-daemon; }

# As the package has it, but for kernel settings, which it leaves alone.
ufw_settings() { # yes|no: for IPv6 too
    sed -i -e "s/^IPV6=.*/IPV6=$1/" -e 's/^IPT_SYSCTL=.*/IPT_SYSCTL=/' /etc/default/ufw
}
start_ufw() {
    ufw_settings "$1"
    ufw --force enable >/dev/null || give_up "ufw cannot be enabled"
}
stop_ufw() { ufw --force disable >/dev/null; }

bus=
firewalld=
start_firewalld() {
    mkdir -p /run/dbus /run/firewalld
    dbus-daemon --system --nofork --nopidfile 2>/run/dbus.out &
    bus=$!
    wait_until 10 test -S /run/dbus/system_bus_socket
    firewalld --nofork --nopid >/run/firewalld.out 2>&1 &
    firewalld=$!
    wait_until 60 firewalld_runs
}
firewalld_runs() { firewall-cmd --state >/dev/null 2>&1; }
stop_firewalld() {
    end_process "$firewalld"
    end_process "$bus"
    firewalld=
    bus=
    rm -rf /run/dbus
}
rich_rule() { echo "rule family=\"ipv4\" source address=\"$1\" port port=\"$2\" protocol=\"tcp\" drop"; }

start_of_ufw() { # COUNT
    local run
    ufw_settings yes
    sed -i 's/^ENABLED=.*/ENABLED=yes/' /etc/ufw/ufw.conf
    cp /etc/ufw/user.rules /run/user.rules
    each_rule plain 0 "$1" 'print "-A ufw-user-input -p tcp -s " a " --sport " s " -j DROP"' >/run/ufw-rules
    sed -i '/^### RULES ###/r /run/ufw-rules' /etc/ufw/user.rules
    for ((run = 0; run < runs; ++run)); do
        empty_kernel
        sample "ufw $1" spent /lib/ufw/ufw-init start
        [ "$(iptables -S ufw-user-input | grep -c sport)" = "$1" ] || give_up "ufw lost rules"
    done
    cp /run/user.rules /etc/ufw/user.rules
    stop_ufw
}
start_of_firewalld() { # COUNT
    local run zone=/etc/firewalld/zones/public.xml
    {
        grep -v '</zone>' /usr/lib/firewalld/zones/public.xml
        each_rule plain 0 "$1" 'print "<rule family=\"ipv4\"><source address=\"" a "\"/><source-port port=\"" s \
            "\" protocol=\"tcp\"/><drop/></rule>"'
        echo '</zone>'
    } >$zone
    start_firewalld
    for ((run = 0; run < runs; ++run)); do
        settle
        sample "firewalld $1" spent firewall-cmd --reload
        [ "$(nft list table inet firewalld | grep -c 'tcp sport')" = "$1" ] || give_up "firewalld lost rules"
    done
    stop_firewalld
    rm $zone
}
start_of_others() { # WORK
    start_of_iptables 1000 plain
    empty_kernel
    ! have_ufw || start_of_ufw 1000
    empty_kernel
    ! have_firewalld || start_of_firewalld 1000
    tell "$1 (one run)" 'ours 1000 plain' 'iptables once per rule' 'iptables 1000 plain'
    tell "$1" 'ours 1000 plain' 'ufw (ufw-init start)' 'ufw 1000'
    tell "$1" 'ours 1000 plain' 'firewalld (firewall-cmd --reload)' 'firewalld 1000'
}

# What reinitialise-under-traffic runs in namespaces of its own, with the addresses in $DENIED and $ALLOWED.
# shellcheck disable=SC2016
cover_ufw='for place in /etc/ufw /etc/default; do
    mkdir -p "/run/covers$place" && cp -a "$place/." "/run/covers$place/" && mount --bind "/run/covers$place" "$place"
done'
# shellcheck disable=SC2016
ufw_with_rules=$cover_ufw'
sed -i "s/^IPT_SYSCTL=.*/IPT_SYSCTL=/" /etc/default/ufw
for i in $(seq 1000); do
    echo "-A ufw-user-output -p udp -d 10.1.$((i / 250)).$((i % 250)) --dport 4711 -j DROP"
done >/run/rules
sed -i "/^### RULES ###/r /run/rules" /etc/ufw/user.rules
ufw deny out to $DENIED >/dev/null && ufw --force enable >/dev/null'
# shellcheck disable=SC2016
firewalld_with_rule='place=/etc/firewalld
mkdir -p /run/covers/firewalld /run/dbus /run/firewalld
cp -a "$place/." /run/covers/firewalld/ && mount --bind /run/covers/firewalld "$place"
dbus-daemon --system --fork --nopidfile >/dev/null 2>&1
firewalld --nopid >/dev/null 2>&1
for i in $(seq 100); do firewall-cmd --state >/dev/null 2>&1 && break; sleep 0.1; done
firewall-cmd --permanent --direct --add-rule ipv4 filter OUTPUT 0 -d $DENIED -j DROP >/dev/null
firewall-cmd --reload >/dev/null'
