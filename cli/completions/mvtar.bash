# bash completion for mvtar. What options there are mvtar itself tells, so that there is no second list.
_mvtar() {
  local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]} program=${COMP_WORDS[0]}
  local option="" value="" typed=""
  # "--format=gnu" arrives as one word or, with "=" among the word breaks, as three.
  if [[ $cur == --*=* ]]; then
    option=${cur%%=*} value=${cur#*=} typed=${cur%%=*}=
  elif [[ $cur == "=" ]]; then
    option=$prev
  elif [[ $prev == "=" ]]; then
    option=${COMP_WORDS[COMP_CWORD - 2]} value=$cur
  elif [[ $prev == -? || $prev == --* ]]; then
    option=$prev value=$cur
  elif [[ $prev == -* ]]; then
    option=-${prev: -1} value=$cur  # the last letter of a bundle, unless it is part of a value
  elif ((COMP_CWORD == 2)); then
    option=-${prev: -1} value=$cur  # of a first word without its dash
  fi

  local table letter name takes kind
  table=$("$program" --help=options 2>/dev/null) || return
  local kind_of_option="" takes_of_option="" long_options="" letters="" value_letters=""
  while IFS= read -r row; do
    # A field may be empty, and read would take several tabs for one.
    letter=${row%%$'\t'*} row=${row#*$'\t'} name=${row%%$'\t'*} row=${row#*$'\t'}
    takes=${row%%$'\t'*} row=${row#*$'\t'} kind=${row%%$'\t'*}
    [[ $takes == "=" ]] && long_options+=" $name=" || long_options+=" $name"
    letters+=" $letter"
    [[ $takes == "=" ]] && value_letters+=${letter#-}
    [[ $option == "$name" || $option == "$letter" && -n $letter ]] && kind_of_option=$kind takes_of_option=$takes
  done <<<"$table"
  [[ $prev == -[!-]?* && -n $(_mvtar_attached "$prev" "$value_letters") ]] && kind_of_option="" takes_of_option=""

  # An optional value has to stand behind a "=".
  if [[ -n $takes_of_option && ($takes_of_option == "=" || -n $typed || $prev == "=" || $cur == "=") ]]; then
    compopt -o filenames
    case $kind_of_option in
      DIR) mapfile -t COMPREPLY < <(compgen -d -- "$value") ;;
      *ARCHIVE | *FILE | PATH) mapfile -t COMPREPLY < <(compgen -f -- "$value") ;;
      WORDS) mapfile -t COMPREPLY < <(compgen -W "$(_mvtar_words)" -- "$value") ;;
      *"|"* | all) mapfile -t COMPREPLY < <(compgen -W "${kind_of_option//|/ }" -- "$value") ;;
      *) COMPREPLY=() ;;
    esac
    [[ -n $typed ]] && COMPREPLY=("${COMPREPLY[@]/#/$typed}")
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
  local archive
  archive=$(_mvtar_archive "$value_letters")
  if [[ -n $archive ]]; then
    _mvtar_members "$program" "$archive" "$cur"
  else
    mapfile -t COMPREPLY < <(compgen -f -- "$cur")
  fi
}

# The value that a bundle of letters ends in, if it does: behind the first letter that takes one ($2 has them all).
_mvtar_attached() {
  local letters=${1%%["$2"]*}
  printf '%s' "${1:${#letters}+1}"
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

# The archive that members are to be named of: where one is read and its name is known by now. $1: the letters of
# options with a value.
_mvtar_archive() {
  local i word letters value reads="" archive="" next=""
  for ((i = 1; i < COMP_CWORD; ++i)); do
    word=${COMP_WORDS[i]}
    if [[ -n $next ]]; then
      archive=$word next=""
      continue
    fi
    case $word in
      --extract | --get | --list | --diff | --compare) reads=1 ;;
      --file) [[ ${COMP_WORDS[i + 1]} == "=" ]] && archive=${COMP_WORDS[i + 2]} || next=1 ;;
      --file=*) archive=${word#*=} ;;
      --*) ;;
      -*)
        letters=${word%%["$1"]*} value=$(_mvtar_attached "$word" "$1")
        [[ $letters == *[xtd]* ]] && reads=1
        if [[ ${word:${#letters}:1} == f ]]; then
          [[ -n $value ]] && archive=$value || next=1
        fi
        ;;
      *) if ((i == 1)); then
        [[ $word == *[xtd]* ]] && reads=1
        [[ $word == *f* ]] && next=1
      fi ;;
    esac
  done
  [[ $archive == "~/"* ]] && archive=$HOME/${archive:2}
  archive=$(_mvtar_unquoted "$archive")
  [[ -n $reads && -f $archive ]] && printf '%s\n' "$archive"
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

_mvtar_words() {
  printf '%s\n' SkipOutputFile SkipUnreadable WriteExactSizes CountSkipsExcluded NoTotal UstarOverflow=fail \
    UstarPlainPrefix PaxExact OpenBeforeEvent FollowLinks Store= Reproducible= FastDeflate= FullRead Restore= \
    OwnerBy=name OwnerBy=id LinkTargets=any LinkTargets=inside ExistingDirectories=keep ExistingDirectories=settle \
    ExistingFiles=keep ExistingFiles=skip ExistingFiles=newer \
    MaxExtensionBytes= MaxPathDepth= MaxMembers= MaxTotalBytes= MaxRatio= MaxWindowBytes= Level= Threads= \
    Profile=usual Profile=untrusted Confine=beneath Confine=nolinks VerifyGzip GzipAllMembers Bz2Framed \
    RequireEndOfArchive EntryEvents MemberEvents SkipUncreatable
}
complete -F _mvtar mvtar
