# Completion of ledgerctl for fish. Sections and keys are asked of the daemon; the bus may start it for that.

# The words before the cursor that are no options: the verb, then its arguments.
function __ledgerctl_words
    set -l skip 0
    for word in (commandline -opc)[2..-1]
        if test $skip = 1
            set skip 0
        else if contains -- $word --timeout --default -i
            set skip 1
        else if not string match -q -- '-?*' $word
            echo -- $word
        end
    end
end

# __ledgerctl_at COUNT VERB...: whether one of the verbs has COUNT arguments before the cursor.
function __ledgerctl_at
    set -l words (__ledgerctl_words)
    test (count $words) = (math $argv[1] + 1); and contains -- $words[1] $argv[2..-1]
end

function __ledgerctl_verb
    set -l words (__ledgerctl_words)
    test (count $words) -gt 0; and contains -- $words[1] $argv
end

function __ledgerctl_no_verb
    test (count (__ledgerctl_words)) = 0
end

function __ledgerctl_names
    ledgerctl -q -0 --timeout 2 list -- $argv 2>/dev/null | string split0
end

function __ledgerctl_keys
    set -l words (__ledgerctl_words)
    __ledgerctl_names $words[2]
end

complete -c ledgerctl -f
complete -c ledgerctl -s q -l quiet -d 'No warnings and notes'
complete -c ledgerctl -s h -l help -d Help
complete -c ledgerctl -l timeout -x -d 'Wait so many seconds for an answer'
complete -c ledgerctl -n __ledgerctl_no_verb -l version -d 'The version'

complete -c ledgerctl -n __ledgerctl_no_verb -a get -d 'Print a value'
complete -c ledgerctl -n __ledgerctl_no_verb -a set -d 'Set a value'
complete -c ledgerctl -n __ledgerctl_no_verb -a exists -d 'Tell whether there is a section or key'
complete -c ledgerctl -n __ledgerctl_no_verb -a list -d 'List the sections, or keys of a section'
complete -c ledgerctl -n __ledgerctl_no_verb -a show -d 'Show keys and values'
complete -c ledgerctl -n __ledgerctl_no_verb -a unset -d 'Delete a key or a whole section'
complete -c ledgerctl -n __ledgerctl_no_verb -a clear -d 'Delete everything'
complete -c ledgerctl -n __ledgerctl_no_verb -a flush -d 'Have the registry written to its file now'
complete -c ledgerctl -n __ledgerctl_no_verb -a dump -d 'Print the registry as JSON, or save it'
complete -c ledgerctl -n __ledgerctl_no_verb -a load -d 'Take in a JSON document'
complete -c ledgerctl -n __ledgerctl_no_verb -a edit -d 'Change the registry in an editor'
complete -c ledgerctl -n __ledgerctl_no_verb -a diff -d 'Compare the registry with a JSON document'
complete -c ledgerctl -n __ledgerctl_no_verb -a watch -d 'Print changes as they are seen'
complete -c ledgerctl -n __ledgerctl_no_verb -a usage -d 'Show how full the registry is'
complete -c ledgerctl -n __ledgerctl_no_verb -a help -d 'Explain a verb'

complete -c ledgerctl -n '__ledgerctl_at 0 get set exists list show unset edit watch' -a '(__ledgerctl_names)' -d Section
complete -c ledgerctl -n '__ledgerctl_at 1 get set exists unset watch' -a '(__ledgerctl_keys)' -d Key
complete -c ledgerctl -n '__ledgerctl_at 0 dump load diff' -F
complete -c ledgerctl -n '__ledgerctl_at 0 help' -a 'get set exists list show unset clear flush dump load edit diff watch usage'

complete -c ledgerctl -n '__ledgerctl_verb get list' -s 0 -l null -d 'End in NUL bytes'
complete -c ledgerctl -n '__ledgerctl_verb get exists list show usage' -l json -d 'Print JSON'
complete -c ledgerctl -n '__ledgerctl_verb get' -l default -x -d 'Print this where there is no such key'
complete -c ledgerctl -n '__ledgerctl_verb set' -l flush -d 'Have the file written at once'
complete -c ledgerctl -n '__ledgerctl_verb unset' -s r -d 'Delete the section with all its keys'
complete -c ledgerctl -n '__ledgerctl_verb clear' -l yes -d Confirm
complete -c ledgerctl -n '__ledgerctl_verb flush' -l sync -d 'Sync the file system too'
complete -c ledgerctl -n '__ledgerctl_verb load' -l replace -d 'Delete what is not named'
complete -c ledgerctl -n '__ledgerctl_verb load' -l missing-only -d 'Set only keys that are missing'
complete -c ledgerctl -n '__ledgerctl_verb load' -l dry-run -d 'Change nothing'
complete -c ledgerctl -n '__ledgerctl_verb watch' -s i -x -d 'Ask that often, in seconds'
