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
    option=-${prev: -1} value=$cur  # the last letter of a bundle
  elif ((COMP_CWORD == 2)); then
    option=-${prev: -1} value=$cur  # of a first word without its dash
  fi

  local table letter name takes kind
  table=$("$program" --help=options 2>/dev/null) || return
  local kind_of_option="" takes_of_option="" long_options="" letters=""
  while IFS= read -r row; do
    # A field may be empty, and read would take several tabs for one.
    letter=${row%%$'\t'*} row=${row#*$'\t'} name=${row%%$'\t'*} row=${row#*$'\t'}
    takes=${row%%$'\t'*} row=${row#*$'\t'} kind=${row%%$'\t'*}
    [[ $takes == "=" ]] && long_options+=" $name=" || long_options+=" $name"
    letters+=" $letter"
    [[ $option == "$name" || $option == "$letter" && -n $letter ]] && kind_of_option=$kind takes_of_option=$takes
  done <<<"$table"

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
  archive=$(_mvtar_archive)
  if [[ -n $archive ]]; then
    _mvtar_members "$program" "$archive" "$cur"
  else
    mapfile -t COMPREPLY < <(compgen -f -- "$cur")
  fi
}

# The archive that members are to be named of: where one is read and its name is known by now.
_mvtar_archive() {
  local i word reads="" archive="" next=""
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
      -*f) next=1 ;;&
      -*[xtd]*) reads=1 ;;
      *) if ((i == 1)); then
        [[ $word == *[xtd]* ]] && reads=1
        [[ $word == *f* ]] && next=1
      fi ;;
    esac
  done
  archive=${archive/#\~\//$HOME/}
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
