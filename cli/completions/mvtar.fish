# fish completion for mvtar. What options there are mvtar itself tells, so that there is no second list.

# The archive that members are to be named of, where one is read and its name is known by now.
function __mvtar_archive
    set -l words (commandline -opc)
    set -l reads 0
    set -l archive ''
    for i in (seq 2 (count $words))
        set -l word $words[$i]
        set -l next ''
        test $i -lt (count $words); and set next $words[(math $i + 1)]
        switch $word
            case --extract --get --list --diff --compare
                set reads 1
            case '--file=*'
                set archive (string replace -- '--file=' '' $word)
            case --file
                set archive $next
            case '--*'
            case '*'
                if string match -q -- '-*' $word; or test $i -eq 2
                    string match -qr '[xtd]' -- $word; and set reads 1
                    string match -qr 'f$' -- $word; and set archive $next
                end
        end
    end
    test $reads -eq 1; and test -f "$archive"; and echo $archive
end

function __mvtar_members
    set -l archive (__mvtar_archive)
    and command mvtar -tf $archive 2>/dev/null | string match -v -- '*\\\\*'
end

complete -c mvtar -n '__mvtar_archive >/dev/null' -f -a '(__mvtar_members)' -d member
command mvtar --help=options 2>/dev/null | while read -l -d \t letter name takes kind help
    set -l row -c mvtar -d $help
    test -n "$name"; and set -a row -l (string replace -- -- '' $name)
    test -n "$letter"; and set -a row -s (string replace -- - '' $letter)
    if test "$takes" = '='
        switch $kind
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
