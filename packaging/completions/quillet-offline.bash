# SPDX-License-Identifier: GPL-2.0-or-later
# bash completion for quillet-offline. Each command's options are those of its --help.
_quillet_offline() {
    local word=$2 before=$3 command="" argument options=""
    for argument in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        if [ "$argument" = -- ]; then
            COMPREPLY=($(compgen -W "-f -b -r -s -q -v -h" -- "$word"))
            return
        fi
        case $argument in
        -*) ;;
        *) [ -n "$command" ] || command=$argument ;;
        esac
    done
    case $before in
    --whole-disk) COMPREPLY=($(compgen -W "mbr gpt" -- "$word")) && return ;;
    --commit) COMPREPLY=($(compgen -W "success always" -- "$word")) && return ;;
    --format) COMPREPLY=($(compgen -W "auto raw qcow2 vmdk vhdx vhd vdi" -- "$word")) && return ;;
    --new) COMPREPLY=($(compgen -W "all machine-guid wsus-id duid telemetry-id" -- "$word")) && return ;;
    --size | --jobs | --files | --descriptors | --machine | --sid | --computer-name | --first-number) return ;;
    esac
    case $command in
    sample) options="--size --whole-disk --force --files --descriptors --machine --help -h" ;;
    info) options="--format --json --help -h" ;;
    audit) options="--report --format --sid --all --json --help -h" ;;
    plan) options="--computer-name --new --report --json --format --verbose -v --help -h" ;;
    run) options="--computer-name --new --json --report --strict --verify --format --undo --no-undo --commit --help -h" ;;
    clone) options="--computer-name --first-number --new --json --format --jobs --verbose -v --help -h" ;;
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
        COMPREPLY=($(compgen -f -- "$word"))
        ;;
    esac
}
complete -F _quillet_offline quillet-offline
