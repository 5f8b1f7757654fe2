# Completion of tablectl for bash.

_tablectl() {
    local commands="list status commands get set mode calibrate move position home cancel reset send lock scan simulate"
    local options="--help --version --runtime-dir --device --json --simulated --noise"
    local current="${COMP_WORDS[COMP_CWORD]}" previous="${COMP_WORDS[COMP_CWORD - 1]}" command="" word

    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        if [[ " $commands " == *" $word "* ]]; then
            command="$word"
            break
        fi
    done

    case "$previous" in
        --runtime-dir) COMPREPLY=($(compgen -d -- "$current")); return ;;
        --simulated | --output | --report | --chart | scan) COMPREPLY=($(compgen -f -- "$current")); return ;;
        --device) COMPREPLY=($(compgen -W "$(tablectl list 2>/dev/null | cut -d' ' -f1)" -- "$current")); return ;;
        --table | --spectrophotometer) COMPREPLY=($(compgen -W "on off" -- "$current")); return ;;
        mode) COMPREPLY=($(compgen -W "ScanningReflectance SingleReflectance" -- "$current")); return ;;
        send) COMPREPLY=($(compgen -W "$(tablectl commands 2>/dev/null | cut -d' ' -f1)" -- "$current")); return ;;
    esac
    case "$command" in
        "") options+=" $commands" ;;
        status) options+=" --watch" ;;
        scan) options+=" --output --report --rows --spot --low-resolution --time-scale" ;;
        simulate)
            options+=" --attach --detach --serial --identifier --chart --time-scale --noise --fault --table"
            options+=" --spectrophotometer --press"
            ;;
    esac
    COMPREPLY=($(compgen -W "$options" -- "$current"))
}

complete -o filenames -F _tablectl tablectl
