# bash completion for mvtar. What options there are mvtar itself tells, so that there is no second list.
_mvtar() {
  local cur=${COMP_WORDS[COMP_CWORD]} program=${COMP_WORDS[0]}
  local table row letter name takes kind
  table=$("$program" --help=options 2>/dev/null) || return
  local long_options="" letters="" value_letters=""
  while IFS= read -r row; do
    _mvtar_fields
    [[ $takes == "=" ]] && long_options+=" $name=" || long_options+=" $name"
    letters+=" $letter"
    [[ $takes == "=" ]] && value_letters+=${letter#-}
  done <<<"$table"

  local whole="" archive="" reads="" pending=()
  _mvtar_walk
  # Bash replaces what is behind its last word break, and of a "=" nothing.
  local head=${whole%"$cur"} option=${pending[0]-} value=$whole typed=""
  [[ $cur == "=" ]] && head=$whole
  [[ -z $option && $whole == --*=* ]] && option=${whole%%=*} value=${whole#*=} typed=$option=

  local kind_of_option="" takes_of_option=""
  while IFS= read -r row; do
    _mvtar_fields
    [[ $option == "$name" || $option == "$letter" && -n $letter ]] && kind_of_option=$kind takes_of_option=$takes
  done <<<"$table"
  # An optional value has to stand behind a "=".
  if [[ $takes_of_option == "=" || -n $takes_of_option && -n $typed ]]; then
    compopt -o filenames
    case $kind_of_option in
      DIR) mapfile -t COMPREPLY < <(compgen -d -- "$value") ;;
      *ARCHIVE | *FILE | PATH) mapfile -t COMPREPLY < <(compgen -f -- "$value") ;;
      WORDS)
        # One behind the other, with commas.
        [[ $value == *,* ]] && typed+=${value%,*},
        mapfile -t COMPREPLY < <(compgen -W "$("$program" --help=words | cut -d " " -f 1)" -- "${value##*,}")
        ;;
      *"|"*) mapfile -t COMPREPLY < <(compgen -W "${kind_of_option//|/ }" -- "$value") ;;
      *) COMPREPLY=() ;;
    esac
    COMPREPLY=("${COMPREPLY[@]/#/$typed}")
    COMPREPLY=("${COMPREPLY[@]#"$head"}")
    return
  fi
  if [[ $cur == --* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$long_options" -- "$cur")
    [[ ${COMPREPLY[0]-} == *= ]] && compopt -o nospace
    return
  fi
  if [[ $cur == - ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$letters --" -- "$cur")
    return
  fi
  if [[ $cur == -* ]]; then
    COMPREPLY=("$cur")  # a bundle of letters is complete as it stands
    return
  fi
  compopt -o filenames
  if [[ -n $reads && -f $archive ]]; then
    _mvtar_members "$program" "$archive" "$cur"
  else
    mapfile -t COMPREPLY < <(compgen -f -- "$cur")
  fi
}

# The fields of $row. One may be empty, and read would take several tabs for one.
_mvtar_fields() {
  letter=${row%%$'\t'*} row=${row#*$'\t'} name=${row%%$'\t'*} row=${row#*$'\t'}
  takes=${row%%$'\t'*} row=${row#*$'\t'} kind=${row%%$'\t'*}
}

# A word as the shell takes it, but for what it expands: without its quotes and back slashes.
_mvtar_unquoted() {
  local text=$1 plain="" quote="" c i
  for ((i = 0; i < ${#text}; ++i)); do
    c=${text:i:1}
    if [[ $c == "\\" && $quote != "'" && ( -z $quote || ${text:i+1:1} == [\$\`\"\\] ) ]]; then
      i=$((i + 1)) plain+=${text:i:1}
    elif [[ -n $quote && $c == "$quote" ]]; then
      quote=""
    elif [[ -z $quote && ( $c == "'" || $c == '"' ) ]]; then
      quote=$c
    else
      plain+=$c
    fi
  done
  printf '%s' "$plain"
}

# What the words up to the cursor say, as mvtar takes them: the archive, whether members of it are named ("reads"), the
# options whose values are still to come, and the word at the cursor, whole: "--format=gnu" arrives as one or, with "="
# among the word breaks, as three.
_mvtar_walk() {
  local i word letters value words=()
  for ((i = 1; i <= COMP_CWORD; ++i)); do
    word=${COMP_WORDS[i]}
    if [[ i -gt 1 && ( $word == "=" || ${COMP_WORDS[i - 1]} == "=" ) ]]; then
      words[-1]+=$word
    else
      words+=("$word")
    fi
  done
  whole=${words[-1]}
  unset "words[-1]"
  for i in "${!words[@]}"; do
    word=${words[i]}
    if ((${#pending[@]} > 0)); then
      [[ ${pending[0]} == -f || ${pending[0]} == --file ]] && archive=$word
      pending=("${pending[@]:1}")
      continue
    fi
    case $word in
      --extract | --get | --list | --diff | --compare) reads=1 ;;
      --file=*) archive=${word#*=} ;;
      --*) [[ $long_options == *" $word="* ]] && pending=("$word") ;;
      -*)
        # A bundle ends in the first letter that takes a value, with the value behind it or in the next word.
        letters=${word%%["$value_letters"]*} value=${word#"$letters"}
        [[ $letters == *[xtd]* ]] && reads=1
        [[ $value == ? ]] && pending=("-$value")
        [[ $value == f?* ]] && archive=${value:1}
        ;;
      *) if ((i == 0)); then
        # The letters of a first word without its dash have the words behind it, in their order.
        [[ $word == *[xtd]* ]] && reads=1
        letters=${word//[^"$value_letters"]/}
        for ((i = 0; i < ${#letters}; ++i)); do pending+=("-${letters:i:1}"); done
      fi ;;
    esac
  done
  [[ $archive == "~/"* ]] && archive=$HOME/${archive:2}
  archive=$(_mvtar_unquoted "$archive")
}

# Names up to the next slash, as of files. Those that are shown with escapes are left to be typed.
_mvtar_members() {
  local depth=${3//[^\/]/}
  mapfile -t COMPREPLY < <(timeout 2 "$1" -tf "$2" 2>/dev/null | awk -v cur="$3" -v parts=$((${#depth} + 1)) '
    index($0, cur) != 1 || /\\/ { next }
    {
      n = split($0, part, "/")
      name = ""
      for (i = 1; i <= parts && i <= n; ++i) name = name part[i] (i < n ? "/" : "")
      if (!seen[name]++) print name
    }')
  [[ ${#COMPREPLY[@]} -eq 1 && ${COMPREPLY[0]} == */ ]] && compopt -o nospace
}
complete -F _mvtar mvtar
