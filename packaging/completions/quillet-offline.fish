# fish completion for quillet-offline. Each command's options are those of its --help.
set -l commands sample info audit plan run undo
set -l none "not __fish_seen_subcommand_from $commands"
complete -c quillet-offline -n "$none" -f -a sample -d 'Make a practice installation'
complete -c quillet-offline -n "$none" -f -a info -d "Show what is on an installation's disks"
complete -c quillet-offline -n "$none" -f -a audit -d "Show where a machine's SID stands"
complete -c quillet-offline -n "$none" -f -a plan -d 'Show what a run would change'
complete -c quillet-offline -n "$none" -f -a run -d 'Run quillet on an installation'
complete -c quillet-offline -n "$none" -f -a undo -d 'Take the latest run back'
complete -c quillet-offline -n "$none" -f -l version -d 'Print the version'
complete -c quillet-offline -s h -l help -d 'Print help'

complete -c quillet-offline -n '__fish_seen_subcommand_from sample' -x -l size -d 'Size of the image, such as 256M'
complete -c quillet-offline -n '__fish_seen_subcommand_from sample' -x -l whole-disk -a 'mbr gpt' -d 'Partition table'
complete -c quillet-offline -n '__fish_seen_subcommand_from sample' -l force -d 'Replace the file when it is there'
complete -c quillet-offline -n '__fish_seen_subcommand_from sample' -x -l files -d 'How many ordinary files'
complete -c quillet-offline -n '__fish_seen_subcommand_from sample' -x -l descriptors -d 'How many different descriptors'
complete -c quillet-offline -n '__fish_seen_subcommand_from sample' -x -l machine -d 'SID of the machine'
complete -c quillet-offline -n '__fish_seen_subcommand_from info' -l json -d 'Print one JSON object'
complete -c quillet-offline -n '__fish_seen_subcommand_from audit' -x -l sid -d 'The SID to look for'
complete -c quillet-offline -n '__fish_seen_subcommand_from audit' -l all -d 'List every place'
complete -c quillet-offline -n '__fish_seen_subcommand_from audit' -l json -d 'Print one JSON object'
complete -c quillet-offline -n '__fish_seen_subcommand_from plan' -s v -l verbose -d 'List every place'
complete -c quillet-offline -n '__fish_seen_subcommand_from run' -r -F -l undo -d 'Where the undo file is kept'
complete -c quillet-offline -n '__fish_seen_subcommand_from run' -l no-undo -d 'Keep no undo file'
complete -c quillet-offline -n '__fish_seen_subcommand_from run' -x -l commit -a 'success always' -d 'When changes are written'
complete -c quillet-offline -n '__fish_seen_subcommand_from undo' -r -F -l undo -d 'The undo file'
