# bash completion for qorldap: commands, each command's options, folders for --conf, files for
# bundles, keys, certificates and password files.

_qorldap() {
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]}
    local commands="publish get-cert get-key put-cert put-key rm-key passwd show tree ls add
        modify delete config expiring verify audit export import help"
    local global="--conf --timeout --help --version"
    local command="" i word
    for ((i = 1; i < COMP_CWORD; i++)); do
        word=${COMP_WORDS[i]}
        case $word in
            --conf | --timeout) ((i++)) ;;
            -*) ;;
            *) command=$word; break ;;
        esac
    done

    case $prev in
        --conf)
            compopt -o filenames 2>/dev/null
            COMPREPLY=($(compgen -d -- "$cur"))
            return ;;
        -o | --output | --report | --p12-pass-file | --key-pass-file | --old-pass-file | --new-pass-file | --prometheus | --key-password-from)
            compopt -o filenames 2>/dev/null
            COMPREPLY=($(compgen -f -- "$cur"))
            return ;;
        --log)
            compopt -o filenames 2>/dev/null
            COMPREPLY=($(compgen -f -- "$cur"))
            return ;;
        --timeout | -j | --jobs | --depth | --class | --within | --since | --entry | --logdb)
            return ;;
    esac

    local options
    case $command in
        "") COMPREPLY=($(compgen -W "$commands $global" -- "$cur")); return ;;
        publish) options="--crypt --public-only --allow-weak-key --p12-pass-file --key-pass-file
            --from-stdin --jobs --report" ;;
        get-cert | get-key) options="--crypt --pem --output" ;;
        put-cert) options="--crypt" ;;
        put-key) options="--crypt --raw" ;;
        rm-key) options="--crypt" ;;
        passwd) options="--old-pass-file --new-pass-file" ;;
        show) options="--ldif --json" ;;
        tree) options="--depth" ;;
        ls) options="--recursive" ;;
        add | modify) options="--class" ;;
        config) options="--check" ;;
        expiring) options="--within --json --csv --prometheus" ;;
        verify) options="--json --key-password-from" ;;
        audit) options="--since --entry --json --log --logdb" ;;
        export) options="--output" ;;
        import) options="--replace --any-entry --check" ;;
        help) COMPREPLY=($(compgen -W "$commands" -- "$cur")); return ;;
    esac
    if [[ $cur == -* ]]; then
        COMPREPLY=($(compgen -W "$options --conf --timeout --help" -- "$cur"))
        return
    fi
    case $command in
        publish)
            # Bundles, and folders that hold them.
            compopt -o filenames 2>/dev/null
            COMPREPLY=($(compgen -d -- "$cur") $(compgen -f -X '!*.[pP]12' -- "$cur")
                $(compgen -f -X '!*.[pP][fF][xX]' -- "$cur"))
            ;;
        put-cert | put-key)
            # The DN first, then the file.
            local positional=0
            for ((i = i + 1; i < COMP_CWORD; i++)); do
                [[ ${COMP_WORDS[i]} == -* ]] || ((positional++))
            done
            if ((positional >= 1)); then
                compopt -o filenames 2>/dev/null
                COMPREPLY=($(compgen -f -- "$cur"))
            fi
            ;;
    esac
}
complete -F _qorldap qorldap
