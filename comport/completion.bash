# bash completion for comport; source it, or put it into a directory of completions under the name "comport".

_comport() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} command=${COMP_WORDS[1]-}
    local words='' order='' i
    case $previous in
    --registry | --pty-link | --trace-file | --capture | --control)
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
        return
        ;;
    --modem) words='modem loopback' ;;
    --port) words=$(_comport_ports) ;;
    --usb)
        case $command in
        serve) words='virtual loopback usbip:// libusb:auto libusb:' ;;
        list) words='usbip:// libusb' ;;
        *) return ;;
        esac
        ;;
    --group)
        mapfile -t COMPREPLY < <(compgen -g -- "$current")
        return
        ;;
    --trace | --rfc2217 | --tcp | --usbip) return ;;
    *)
        if [ "$COMP_CWORD" = 1 ]; then
            words='serve check list status ctl modem --help --version'
        else
            case $command in
            serve) words='--registry --pty-link --group --modem --usb --rfc2217 --tcp --kick --control --trace --trace-file --capture --no-verifier --help' ;;
            check) words='--trace --trace-file --capture --no-verifier --help' ;;
            modem) words='--usbip --modem --help' ;;
            list) words='--json --control --usb --help' ;;
            status) words="--json --control --help $(_comport_ports)" ;;
            ctl)
                for ((i = 2; i < COMP_CWORD; ++i)); do
                    case ${COMP_WORDS[i]} in
                    --port | --control) ((++i)) ;;
                    -*) ;;
                    *) order+="${COMP_WORDS[i]} " ;;
                    esac
                done
                case $order in
                '') words='line break error ring drop unplug plug trace --port --control --help' ;;
                'line ') words='dcd dsr ri cts hold' ;;
                'line '*' '*' ') ;;
                'line '*) words='on off auto' ;;
                'error ') words='framing parity overrun' ;;
                esac
                ;;
            esac
        fi
        ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
}

# The ports of the running server, if one runs.
_comport_ports() {
    "${COMP_WORDS[0]}" list 2>/dev/null | sed -n '2,$s/ .*//p'
}

complete -F _comport comport
