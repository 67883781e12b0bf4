# What runs inside the guest (see run). Everything is there for the taking: one run, then the machine is gone.

failed=0
scenario() { # scenario NAME - runs the function of that name
    if "$1" >/tmp/"$1" 2>&1; then
        echo "passed: $1"
    else
        failed=1
        cat /tmp/"$1"
        dmesg | tail -n 20
        echo "FAILED: $1"
    fi
}

within() { # within SECONDS COMMAND... - until it succeeds
    local left=$(($1 * 10))
    shift
    until "$@" >/dev/null 2>&1; do
        left=$((left - 1))
        [ $left -gt 0 ] || { echo "not in time: $*"; return 1; }
        usleep 100000
    done
}

lacks() { ! test -e "$1"; }
driver_is() { [ "$(basename "$(readlink "/sys/bus/usb/devices/$1/driver")")" = "$2" ]; }
started() { comport status | head -n 1 | grep -q ' started'; }
waiting() { comport status | head -n 1 | grep -q ' waiting'; }
online() { ifconfig ppp0 | grep -q 'P-t-P:192.0.2.1 '; }

# An ACM device that a gadget controller of the kernel's makes.
gadget() { # gadget NAME CONTROLLER
    local at=/sys/kernel/config/usb_gadget/$1
    mkdir -p $at/strings/0x409 $at/configs/c.1 $at/functions/acm.$1
    echo 0x1d6b >$at/idVendor
    echo 0x0104 >$at/idProduct
    echo 0123456789 >$at/strings/0x409/serialnumber
    ln -s $at/functions/acm.$1 $at/configs/c.1
    echo "$2" >$at/UDC
}

# The gadget sends back what comes, until the host lets it go. What comes while nobody has its terminal open would be gone.
echo_at() { # echo_at NAME
    local tty
    tty=/dev/ttyGS$(cat /sys/kernel/config/usb_gadget/"$1"/functions/acm."$1"/port_num)
    exec 4<>"$tty" || return 1
    stty raw -echo <&4
    cat <&4 >&4 2>/dev/null &
    exec 4>&-
}

# A megabyte there and back through the terminal, which stays open as descriptor 3.
megabyte_comes_back() { # megabyte_comes_back TERMINAL
    head -c 1048576 /dev/urandom >/tmp/sent
    stty -F "$1" raw -echo
    exec 3<>"$1"
    head -c 1048576 <&3 >/tmp/came &
    local reader=$!
    cat /tmp/sent >&3 &
    within 60 eval "! kill -0 $reader" || return 1
    cmp /tmp/sent /tmp/came
}

serve() { # serve OPTION... - in the background, as $server
    rm -f /tmp/COM3
    comport serve --registry /tmp/comport.reg --pty-link /tmp/COM3 --trace 0 "$@" >/tmp/serve.log 2>&1 &
    server=$!
    within 20 test -e /tmp/COM3 && within 10 started
}

end_server() {
    kill $server
    wait $server || { echo "the server ends with status $?"; cat /tmp/serve.log; return 1; }
}

pings_over_ppp() { # pings_over_ppp COUNT COMMAND - dials with pppd's line, pings, hangs up
    sh -c "exec $2" >/tmp/ppp.log 2>&1 &
    local dialler=$!
    within 30 online || { cat /tmp/ppp.log; return 1; }
    ping -c "$1" -i 0.02 -s 1400 192.0.2.1 >/tmp/ping.log
    tail -n 2 /tmp/ping.log
    kill $dialler
    wait $dialler
    grep -q " $1 packets received" /tmp/ping.log
}

dial_line() { # dial_line TERMINAL
    echo "pppd $1 115200 local nodetach noauth user me password me connect '/usr/sbin/chat \"\" ATD*99# CONNECT'"
}

# ---- The scenarios

pppd_dials_by_the_printed_line() {
    serve || return 1
    line=$(sed -n 's/^Dial up: //p' /tmp/serve.log)
    pings_over_ppp 200 "$line" && pings_over_ppp 20 "$line" || return 1
    comport status
    comport status | grep -q 'of them framed *[1-9][0-9][0-9] in' || return 1
    end_server
}

kernel_attaches_the_exported_modem() {
    insmod /lib/modules/vhci-hcd.ko
    comport modem --usbip 3240 >/tmp/modem.log 2>&1 &
    server=$!
    within 10 usbip list -r 127.0.0.1
    usbip attach -r 127.0.0.1 -b 1-1 || return 1
    within 20 test -e /dev/ttyACM0 || return 1
    stty -F /dev/ttyACM0 raw -echo
    exec 3<>/dev/ttyACM0
    printf 'ATI\r' >&3
    timeout 10 grep -q -m 1 'Virtual modem' <&3 || return 1
    exec 3>&-
    pings_over_ppp 20 "$(dial_line /dev/ttyACM0)" || return 1
    usbip detach -p 0
    within 10 lacks /dev/ttyACM0 || return 1
    end_server
}

program_imports_the_kernels_device() {
    insmod /lib/modules/usbip-vudc.ko
    gadget exported usbip-vudc.0
    usbipd --device --daemon
    within 10 usbip list -r 127.0.0.1 || return 1
    comport list --usb usbip://127.0.0.1
    serve --usb usbip://127.0.0.1/usbip-vudc.0 || return 1
    echo_at exported || return 1
    megabyte_comes_back /tmp/COM3 || return 1
    exec 3>&-
    end_server
}

plugged_in_device_goes_and_comes_back() {
    insmod /lib/modules/dummy_hcd.ko is_high_speed=1
    gadget plugged dummy_udc.0
    within 20 test -e /dev/ttyACM0 || return 1
    device=$(basename "$(readlink -f /sys/class/tty/ttyACM0/device)")
    comport list --usb libusb
    serve --usb libusb:auto || return 1
    within 10 driver_is "$device" usbfs || return 1
    echo_at plugged || return 1
    megabyte_comes_back /tmp/COM3 || return 1
    echo >/sys/kernel/config/usb_gadget/plugged/UDC
    within 10 waiting || return 1
    echo dummy_udc.0 >/sys/kernel/config/usb_gadget/plugged/UDC
    within 20 started || return 1
    echo_at plugged || return 1
    echo hello >&3
    [ "$(timeout 10 head -n 1 <&3)" = hello ] || return 1
    exec 3>&-
    end_server || return 1
    within 10 driver_is "$device" cdc_acm   # given back
}

scenario pppd_dials_by_the_printed_line
scenario kernel_attaches_the_exported_modem
scenario program_imports_the_kernels_device
scenario plugged_in_device_goes_and_comes_back
[ $failed = 0 ] && echo "guest: all passed"
