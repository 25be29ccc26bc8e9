# SPDX-License-Identifier: GPL-2.0-or-later
# bash completion for quillet-offline. Each command's options are those of its --help.
_quillet_offline() {
    local word=$2 before=$3 command="" argument options="" own="-f -b -r -s -q -v -h"
    for argument in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        if [ "$argument" = -- ]; then
            [ "$command" != clone ] || own="-f -v"
            COMPREPLY=($(compgen -W "$own" -- "$word"))
            return
        fi
        case $argument in
        -*) ;;
        *) [ -n "$command" ] || command=$argument ;;
        esac
    done
    [ "$word" != = ] || word=""
    [ "$before" != = ] || before=${COMP_WORDS[COMP_CWORD-2]} # --format=qcow2 is three words
    case $before in
    --whole-disk) COMPREPLY=($(compgen -W "mbr gpt" -- "$word")) && return ;;
    --progress) COMPREPLY=($(compgen -W "always auto never" -- "$word")) && return ;;
    --commit) COMPREPLY=($(compgen -W "success always" -- "$word")) && return ;;
    --format) COMPREPLY=($(compgen -W "auto raw qcow2 vmdk vhdx vhd vdi" -- "$word")) && return ;;
    --new) COMPREPLY=($(compgen -W "all machine-guid wsus-id duid telemetry-id" -- "$word")) && return ;;
    --size | --jobs | --files | --descriptors | --machine | --sid | --computer-name | --first-number) return ;;
    esac
    case $command in
    sample) options="--size --whole-disk --force --files --descriptors --machine --progress --help -h" ;;
    info) options="--format --json --help -h" ;;
    audit) options="--report --format --sid --all --json --progress --help -h" ;;
    plan) options="--computer-name --new --report --json --format --verbose -v --progress --help -h" ;;
    run) options="--computer-name --new --json --report --strict --verify --format --undo --no-undo --commit --progress --help -h" ;;
    clone) options="--computer-name --first-number --new --json --format --jobs --verbose -v --progress --help -h" ;;
    undo) options="--json --format --undo --help -h" ;;
    "")
        COMPREPLY=($(compgen -W "sample info audit plan run clone undo --help -h --version" -- "$word"))
        return
        ;;
    esac
    case $word in
    -*) COMPREPLY=($(compgen -W "$options" -- "$word")) ;;
    *)
        compopt -o filenames
        mapfile -t COMPREPLY < <(compgen -f -- "$word") # names may have spaces
        ;;
    esac
}
complete -F _quillet_offline quillet-offline
