# Completion of tablectl for bash.
#
# What devices call themselves, their attributes and commands is foreign text: no word of it is ever expanded
# (compgen -W would do that), and what is inserted is quoted here: readline leaves "$" as it is.

# Adds the lines of standard input that begin with what has been typed. Bash cuts words at their colons, and
# replaces what comes after the last one only.
_tablectl_offer() {
    local word before="${current%"${current##*:}"}"
    compopt +o filenames 2>/dev/null # they are no names of files, and are not to be quoted twice
    while IFS= read -r word; do
        [[ -n "$word" && "$word" == "$current"* ]] || continue
        printf -v word %q "${word#"$before"}"
        COMPREPLY+=("$word")
    done
}

# What a command says of the device that the line names, each line up to a separator.
_tablectl_ask() {
    local separator="$1" line
    shift
    tablectl "${folder[@]}" "$@" 2>/dev/null | while IFS= read -r line; do
        printf '%s\n' "${line%%"$separator"*}"
    done
}

_tablectl() {
    local commands="list status commands get set mode calibrate move position home cancel reset send lock scan spot"
    commands+=" align average compare report convert simulate recording"
    local options="--help --version --runtime-dir --device --json --simulated --noise --replayed --record"
    local words current previous command="" skip="" word
    local folder=() device=() # what the line itself says of them

    COMPREPLY=()
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
        elif [[ " --runtime-dir --device --simulated --noise --replayed --record " == *" $word "* ]]; then
            skip="$word" # the next one is its value
        elif [[ " $commands " == *" $word "* ]]; then
            command="$word"
            break
        fi
    done

    case "$previous" in
        --runtime-dir) mapfile -t COMPREPLY < <(compgen -d -- "$current"); return ;;
        --simulated | --replayed | --record | --output | --report | --chart | --recording | --placement | --resume | --reference)
            mapfile -t COMPREPLY < <(compgen -f -- "$current")
            return
            ;;
        --device) _tablectl_offer < <(_tablectl_ask "  " list); return ;;
        --table | --spectrophotometer) _tablectl_offer <<<$'on\noff'; return ;;
    esac
    case "$command" in
        "") options+=" $commands" ;;
        get) _tablectl_offer < <(_tablectl_ask ": " "${device[@]}" status) ;;
        set) [[ "$previous" == set ]] && _tablectl_offer < <(_tablectl_ask ": " "${device[@]}" status) ;;
        mode) options+=" ScanningReflectance SingleReflectance" ;;
        send) [[ "$previous" == send ]] && _tablectl_offer < <(_tablectl_ask "  " "${device[@]}" commands) ;;
        status) options+=" --watch" ;;
        scan)
            options+=" --grid --corners --placement --output --resume --repeat --xyz --report --rows --spot --low-resolution"
            options+=" --strict --no-picture --time-scale"
            ;;
        spot) options+=" --count --time-scale" ;;
        align) options+=" --grid --corners --placement --output --time-scale" ;;
        average) options+=" --output" ;;
        compare) options+=" --limit --report" ;;
        report) options+=" --reference --output" ;;
        convert) options+=" --output" ;;
        simulate)
            options+=" --attach --detach --serial --identifier --chart --recording --time-scale --noise --fault --table"
            options+=" --spectrophotometer --press"
            ;;
        recording) options+=" --anonymous" ;;
    esac
    if [[ "$command" =~ ^(scan|align|average|compare|report|convert|recording)$ && "$current" != -* ]]; then
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
    elif [[ "$current" == -* ]]; then
        _tablectl_offer < <(tr ' ' '\n' <<<"$options")
    else # options are for those who have begun one
        _tablectl_offer < <(tr ' ' '\n' <<<"$options" | grep -v '^--')
    fi
}

complete -o filenames -F _tablectl tablectl
