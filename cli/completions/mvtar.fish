# fish completion for mvtar. What options there are mvtar itself tells, so that there is no second list.

# The words of --options, one behind the other with commas.
function __mvtar_words
    set -l before (string match -r -- '^(?:-.*?=)?((?:.*,)?)' (commandline -ct))[2]
    command mvtar --help=words 2>/dev/null | string replace -r -- '^(\S+) +' "$before"'$1\t'
end

# The archive that members are to be named of, where one is read and its name is known by now. Words are taken as mvtar
# takes them: letters of a first word without its dash have the words behind it, in their order.
function __mvtar_archive
    set -l words (commandline -opc)
    set -l reads 0
    set -l archive ''
    set -l pending # letters whose words are still to come
    for i in (seq 2 (count $words))
        set -l word $words[$i]
        if set -q pending[1]
            test $pending[1] = f; and set archive $word
            set -e pending[1]
            continue
        end
        switch $word
            case --extract --get --list --diff --compare
                set reads 1
            case '--file=*'
                set archive (string replace -- '--file=' '' $word)
            case --file
                set pending f
            case '--*'
            case '-*'
                # The letters in front of the first that takes a value, that one, and the value, if it is attached.
                set -l parts (string match -r -- "^-([^$__mvtar_value_letters]*)(.?)(.*)" $word)
                string match -qr '[xtd]' -- $parts[2]; and set reads 1
                if test -z "$parts[4]"
                    set pending $parts[3]
                    test -z "$pending"; and set -e pending[1]
                else if test $parts[3] = f
                    set archive $parts[4]
                end
            case '*'
                test $i -eq 2; or continue
                string match -qr '[xtd]' -- $word; and set reads 1
                set pending (string match -ra -- "[$__mvtar_value_letters]" $word)
        end
    end
    not set -q pending[1]; and test $reads -eq 1; and test -f "$archive"; and echo $archive
end

function __mvtar_members
    set -l archive (__mvtar_archive)
    and command mvtar -tf $archive 2>/dev/null | string match -v -- '*\\\\*'
end

set -g __mvtar_value_letters ''
complete -c mvtar -n '__mvtar_archive >/dev/null' -f -a '(__mvtar_members)' -d member
command mvtar --help=options 2>/dev/null | while read -l -d \t letter name takes kind help
    set -l row -c mvtar -d $help
    test -n "$name"; and set -a row -l (string replace -- -- '' $name)
    test -n "$letter"; and set -a row -s (string replace -- - '' $letter)
    if test "$takes" = '='
        set __mvtar_value_letters $__mvtar_value_letters(string replace -- - '' $letter)
        switch $kind
            case WORDS
                set -a row -x -a '(__mvtar_words)'
            case DIR
                set -a row -x -a '(__fish_complete_directories)'
            case '*ARCHIVE' '*FILE' PATH
                set -a row -r -F
            case '*|*'
                set -a row -x -a (string replace -a '|' ' ' $kind)
            case '*'
                set -a row -x
        end
    else if test "$takes" = '[=]'
        set -a row -f -a (string replace -a '|' ' ' $kind)
    end
    complete $row
end
