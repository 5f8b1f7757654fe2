# Completion of tablectl for bash.

_tablectl() {
    local commands="list status commands get set mode calibrate move position home cancel reset send lock scan spot align simulate"
    local options="--help --version --runtime-dir --device --json --simulated --noise"
    local words current previous command="" skip="" word
    local folder=() device=() # what the line itself says of them

    # Not COMP_WORDS: bash cuts device paths at their colons.
    read -a words <<<"${COMP_LINE:0:COMP_POINT}"
    [[ "${COMP_LINE:0:COMP_POINT}" == *" " ]] && words+=("")
    current="${words[-1]}"
    previous="${words[-2]}"
    for word in "${words[@]:1:${#words[@]}-2}"; do
        if [[ -n "$skip" ]]; then
            case "$skip" in
                --runtime-dir) folder=("$skip" "$word") ;;
                --device) device=("$skip" "$word") ;;
            esac
            skip=""
        elif [[ " --runtime-dir --device --simulated --noise " == *" $word "* ]]; then
            skip="$word" # the next one is its value
        elif [[ " $commands " == *" $word "* ]]; then
            command="$word"
            break
        fi
    done

    case "$previous" in
        --runtime-dir) COMPREPLY=($(compgen -d -- "$current")); return ;;
        --simulated | --output | --report | --chart) COMPREPLY=($(compgen -f -- "$current")); return ;;
        --device)
            COMPREPLY=($(compgen -W "$(tablectl "${folder[@]}" list 2>/dev/null | cut -d' ' -f1)" -- "$current"))
            COMPREPLY=("${COMPREPLY[@]#"${current%"${current##*:}"}"}")
            return
            ;;
        --table | --spectrophotometer) COMPREPLY=($(compgen -W "on off" -- "$current")); return ;;
    esac
    case "$command" in
        "") options+=" $commands" ;;
        get) options+=" $(tablectl "${folder[@]}" "${device[@]}" status 2>/dev/null | cut -d: -f1)" ;;
        set)
            [[ "$previous" == set ]] &&
                options+=" $(tablectl "${folder[@]}" "${device[@]}" status 2>/dev/null | cut -d: -f1)"
            ;;
        mode) options+=" ScanningReflectance SingleReflectance" ;;
        send)
            [[ "$previous" == send ]] &&
                options+=" $(tablectl "${folder[@]}" "${device[@]}" commands 2>/dev/null | cut -d' ' -f1)"
            ;;
        status) options+=" --watch" ;;
        scan) options+=" --output --report --rows --spot --low-resolution --time-scale" ;;
        spot) options+=" --count --time-scale" ;;
        align) options+=" --output --time-scale" ;;
        simulate)
            options+=" --attach --detach --serial --identifier --chart --time-scale --noise --fault --table"
            options+=" --spectrophotometer --press"
            ;;
    esac
    if [[ "$command" =~ ^(scan|align)$ && "$current" != -* ]]; then
        COMPREPLY=($(compgen -f -- "$current"))
    elif [[ "$current" == -* ]]; then
        COMPREPLY=($(compgen -W "$options" -- "$current"))
    else # options are for those who have begun one
        COMPREPLY=($(compgen -W "$(tr ' ' '\n' <<<"$options" | grep -v '^--')" -- "$current"))
    fi
}

complete -o filenames -F _tablectl tablectl
