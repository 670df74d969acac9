# Completion of the command orvane for fish. Commands and options come from its own help.

function __orvane_program
    set -l words (commandline -opc)
    echo $words[1]
end

function __orvane_commands
    eval (__orvane_program) --help 2>/dev/null | sed -n '/^Subcommands:/,$ s/^  \([a-z]\{1,\}\)  *\(.*\)/\1\t\2/p'
end

function __orvane_options
    set -l words (commandline -opc)
    eval (__orvane_program) $words[2] --help 2>/dev/null | sed -n 's/^  \(-[a-z],\)\{0,1\}\(--[a-z-]\{1,\}\).*/\2/p'
end

function __orvane_queues
    eval (__orvane_program) ls --json 2>/dev/null | sed -n 's/^{"queue":"\([^"]*\)".*/\1/p'
end

function __orvane_streams
    eval (__orvane_program) streams --json 2>/dev/null | sed -n 's/^{"stream":"\([^"]*\)".*/\1/p'
end

function __orvane_forward_options
    eval (__orvane_program) --help 2>/dev/null | sed -n 's/^  \(-[a-z],\)\{0,1\}\(--[a-z-]\{1,\}\).*/\2/p'
end

# Is this the place of a command, of an option, of the value of one of these options, or of a word?
function __orvane_at
    set -l words (commandline -opc)
    set -l begins_option (string match -q -- '-*' (commandline -ct); and echo yes)
    switch $argv[1]
        case command
            test (count $words) -eq 1; and test -z "$begins_option"
        case option
            test -n "$begins_option"
        case value
            contains -- $words[-1] $argv[2..]
        case word
            test (count $words) -gt 1; and contains -- $words[2] $argv[2..]; and test -z "$begins_option"
    end
end

complete -c orvane -n '__orvane_at command' -f -a '(__orvane_commands)'
complete -c orvane -n '__orvane_at option' -f -a '(__orvane_options)'
complete -c orvane -n '__orvane_at value -q --queue' -f -a '(__orvane_queues)'
complete -c orvane -n '__orvane_at value -s --socket' -a '(printf "%s\n" /run/orvaned/*/socket 2>/dev/null)'
complete -c orvane -n '__orvane_at word help' -f -a '(__orvane_commands)'
complete -c orvane -n '__orvane_at word stat' -f -a '(__orvane_queues)'
complete -c orvane -n '__orvane_at word clean' -a '(__orvane_queues)'
complete -c orvane -n '__orvane_at word cat' -f -a '(__orvane_streams)'
complete -c orvane -n '__orvane_at word dump verify' -a '(__orvane_streams)'
complete -c orvane-forward -n '__orvane_at option' -f -a '(__orvane_forward_options)'
