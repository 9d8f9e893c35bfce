#!/usr/bin/env bash
# Completion of mvtar's command lines by bash, and by zsh and fish where they are installed: the same lines for each.
#
# usage: completion_test.sh BUILD
set -euo pipefail
completions=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)/cli/completions
PATH=$(cd "$1/cli" && pwd):$PATH
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
export HOME=$work TERM=dumb LC_ALL=C.UTF-8

mkdir -p tree/sub target
echo one >tree/sub/random
mvtar -cf members.tar -C tree sub
cp members.tar "my members.tar"

# A line, and what its last word becomes.
cat >lines <<'END'
mvtar -c --exclude-v | --exclude-vcs
mvtar -c --format=u | --format=ustar
mvtar -c --progress=al | --progress=always
mvtar --options PaxE | PaxExact
mvtar --options PaxExact,FullR | PaxExact,FullRead
mvtar --options=Confine=beneath,FullR | --options=Confine=beneath,FullRead
mvtar xf mem | members.tar
mvtar -xf members.tar sub/r | sub/random
mvtar -xvzf members.tar sub/r | sub/random
mvtar -xfmembers.tar sub/r | sub/random
mvtar -x --file members.tar sub/r | sub/random
mvtar xzf members.tar sub/r | sub/random
mvtar xfC members.tar targ | target
mvtar xfC members.tar target sub/r | sub/random
mvtar xCf target members.tar sub/r | sub/random
mvtar xf members.tar -C targ | target
mvtar -cf members.tar targ | target
mvtar -xf my\ members.tar sub/r | sub/random
mvtar -xf 'my members.tar' sub/r | sub/random
mvtar -xf "my members.tar" sub/r | sub/random
mvtar -c --owner=a | --owner=a
END

# Each shell prints the word for every line; where it offers nothing, the one that was typed.
orelse() { echo "${2:-$1}"; }

# A line is cut into words as the shell does it, with their quotes.
bash_words() {
  local words=()
  while IFS= read -r line; do
    mapfile -t words < <(grep -oE "('[^']*'|\"[^\"]*\"|\\\\.|[^ ])+" <<<"$line")
    orelse "${words[-1]}" "$(complete_words "${words[@]}")"
  done
}
complete_words() {  # complete_words WORD...: what bash offers for the last one
  bash -c 'compopt() { :; }; source "$0"; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _mvtar
    echo "${COMPREPLY[*]-}"' "$completions/mvtar.bash" "$@"
}

zsh_words() {
  cat >setup.zsh <<END
fpath=($completions \$fpath) zle_highlight=(none) PS1=
autoload -Uz compinit && compinit -u -D
show() { print -r -- "\$BUFFER" >>shown; BUFFER=; }
zle -N show; bindkey '^X' show
: >shown
END
  rm -f shown
  # A terminal of its own, in which Tab is pressed behind each line. What it prints is read, so that it goes on.
  zsh -f -c 'zmodload zsh/zpty; zpty terminal zsh -f -i; zpty -w terminal ". ./setup.zsh"
    integer n=0 rounds=0
    wait_for() { while ((rounds++ < 3000)) && [[ ! -e shown || $(wc -l <shown) -lt $n ]]; do
      zpty -rt terminal text || sleep 0.01; done }
    wait_for
    while IFS= read -r line; do zpty -w -n terminal "$line"$'"'\\t\\x18'"'; ((++n)); wait_for; done
    zpty -d terminal' >/dev/null
  # The comma is there until a blank is typed.
  sed 's/[ ,]$//; s/.*[^\\] //' shown
}

fish_words() {
  while IFS= read -r line; do
    orelse "${line##* }" "$(fish --no-config -c 'source $argv[1]; complete -C $argv[2]' "$completions/mvtar.fish" "$line" |
      cut -f 1 | xargs)"
  done
}

for shell in bash zsh fish; do
  command -v $shell >/dev/null || { echo "$shell is not installed" && continue; }
  # Directories end in a slash where the shell adds it by itself.
  { sed 's/ | .*//' lines | ${shell}_words 2>said | sed 's,/$,,' >words; } || true
  sed 's/.* | //' lines | diff -u - words || { cat said; echo "FAILED: $shell"; exit 1; }
  [ ! -s said ] || { cat said; echo "FAILED: $shell has something to say"; exit 1; }
done

# With "=" among the word breaks, only what is behind the last one is replaced.
for row in "--format = u:ustar" "--options = PaxExact,FullR:PaxExact,FullRead" "--options Confine = ben:beneath" \
  "--options Confine = beneath,FullR:beneath,FullRead"; do
  # shellcheck disable=SC2086
  got=$(complete_words mvtar ${row%:*})
  [ "$got" = "${row##*:}" ] || { echo "FAILED: bash makes '$got' of ${row%:*}" && exit 1; }
done
echo "all done"
