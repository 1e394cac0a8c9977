# Completion of ledgerctl for fish. Sections and keys are those of the daemon; the bus may start it for that.

# The words before the cursor that are no options: the verb, then its arguments. Options end at "--", and at the section
# of set.
function __ledgerctl_words
    set -l skip 0
    set -l literal 0
    set -l verb
    for word in (commandline -opc)[2..-1]
        if test $skip = 1
            set skip 0
        else if test $literal = 0; and test "$word" = --
            set literal 1
        else if test $literal = 0; and string match -q -r -- '^-.' $word
            if contains -- $word --timeout --default --fail-above --exec -i
                set skip 1
            end
        else
            test "$verb" = set; and set literal 1
            set verb $verb $word
            echo -- $word
        end
    end
end

# __ledgerctl_at COUNT VERB...: whether one of the verbs has COUNT arguments before the cursor.
function __ledgerctl_at
    set -l words (__ledgerctl_words)
    test (count $words) = (math $argv[1] + 1); and contains -- $words[1] $argv[2..-1]
end

# Whether the cursor is at a key of set: the section and pairs precede it.
function __ledgerctl_at_key_of_set
    set -l words (__ledgerctl_words)
    test "$words[1]" = set; and test (math (count $words) % 2) = 0
end

# Whether an option can follow.
function __ledgerctl_options
    set -l words (__ledgerctl_words)
    test "$words[1]" != set; or test (count $words) = 1
end

function __ledgerctl_verb
    set -l words (__ledgerctl_words)
    test (count $words) -gt 0; and contains -- $words[1] $argv; and __ledgerctl_options
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
complete -c ledgerctl -n __ledgerctl_options -s q -l quiet -d 'No warnings and notes'
complete -c ledgerctl -n __ledgerctl_options -s h -l help -d Help
complete -c ledgerctl -n __ledgerctl_options -l timeout -x -d 'Wait so many seconds for an answer'
complete -c ledgerctl -n __ledgerctl_no_verb -l version -d 'The version'

complete -c ledgerctl -n __ledgerctl_no_verb -a get -d 'Print a value'
complete -c ledgerctl -n __ledgerctl_no_verb -a set -d 'Set values'
complete -c ledgerctl -n __ledgerctl_no_verb -a exists -d 'Report whether a section or key exists'
complete -c ledgerctl -n __ledgerctl_no_verb -a list -d 'List the sections, or the keys of one'
complete -c ledgerctl -n __ledgerctl_no_verb -a show -d 'Show keys and values'
complete -c ledgerctl -n __ledgerctl_no_verb -a unset -d 'Delete a key or a whole section'
complete -c ledgerctl -n __ledgerctl_no_verb -a clear -d 'Delete everything'
complete -c ledgerctl -n __ledgerctl_no_verb -a flush -d 'Write the registry to its file now'
complete -c ledgerctl -n __ledgerctl_no_verb -a dump -d 'Print the registry as JSON, or save it'
complete -c ledgerctl -n __ledgerctl_no_verb -a load -d 'Import a JSON document'
complete -c ledgerctl -n __ledgerctl_no_verb -a edit -d 'Change the registry in an editor'
complete -c ledgerctl -n __ledgerctl_no_verb -a diff -d 'Compare the registry with a JSON document'
complete -c ledgerctl -n __ledgerctl_no_verb -a watch -d 'Print changes as they are seen'
complete -c ledgerctl -n __ledgerctl_no_verb -a usage -d 'Show how full the registry is'
complete -c ledgerctl -n __ledgerctl_no_verb -a help -d 'Explain a verb'

complete -c ledgerctl -n '__ledgerctl_at 0 get set exists list show unset edit watch' -a '(__ledgerctl_names)' \
    -d Section
complete -c ledgerctl -n '__ledgerctl_at 1 get exists unset watch' -a '(__ledgerctl_keys)' -d Key
complete -c ledgerctl -n __ledgerctl_at_key_of_set -a '(__ledgerctl_keys)' -d Key
complete -c ledgerctl -n '__ledgerctl_at 0 dump load diff' -F
complete -c ledgerctl -n '__ledgerctl_at 0 help' \
    -a 'get set exists list show unset clear flush dump load edit diff watch usage'

complete -c ledgerctl -n '__ledgerctl_no_verb; or __ledgerctl_verb get list' -s 0 -l null -d 'Print NUL bytes'
complete -c ledgerctl -n '__ledgerctl_no_verb; or __ledgerctl_verb get exists list show watch usage' -l json \
    -d 'Print JSON'
complete -c ledgerctl -n '__ledgerctl_verb get' -l default -x -d 'Print this if the key does not exist'
complete -c ledgerctl -n '__ledgerctl_verb set' -l flush -d 'Write the file at once'
complete -c ledgerctl -n '__ledgerctl_verb set load edit' -l force -d 'Set also what the next start would lose'
complete -c ledgerctl -n '__ledgerctl_verb unset' -s r -d 'Delete the section with all its keys'
complete -c ledgerctl -n '__ledgerctl_verb clear' -l yes -d Confirm
complete -c ledgerctl -n '__ledgerctl_verb flush' -l sync -d 'Sync the file system too'
complete -c ledgerctl -n '__ledgerctl_verb load' -l text -d 'Read the form that show prints'
complete -c ledgerctl -n '__ledgerctl_verb load' -l replace -d 'Delete what is not named'
complete -c ledgerctl -n '__ledgerctl_verb load' -l missing-only -d 'Set only keys that are missing'
complete -c ledgerctl -n '__ledgerctl_verb load' -l dry-run -d 'Change nothing'
complete -c ledgerctl -n '__ledgerctl_verb watch' -s i -x -d 'The interval in seconds'
complete -c ledgerctl -n '__ledgerctl_verb watch' -l exec -x -d 'Run this command with the changes'
complete -c ledgerctl -n '__ledgerctl_verb usage' -l fail-above -x -d 'Fail if more percent are used'
