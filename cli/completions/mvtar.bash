# bash completion for mvtar
_mvtar() {
  local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]} option="" value=""
  # "--format=gnu" arrives as one word or, with "=" among the word breaks, as three.
  if [[ $cur == --*=* ]]; then
    option=${cur%%=*} value=${cur#*=}
  elif [[ $cur == "=" ]]; then
    option=$prev
  elif [[ $prev == "=" ]]; then
    option=${COMP_WORDS[COMP_CWORD - 2]} value=$cur
  fi

  local words=""
  case $option in
    --format) words="gnu ustar pax posix" ;;
    --progress) words="auto always never" ;;
    --options)
      words="SkipOutputFile SkipUnreadable WriteExactSizes CountSkipsExcluded NoTotal UstarOverflow=fail
        UstarPlainPrefix PaxExact OpenBeforeEvent FollowLinks Store= Reproducible= FastDeflate= FullRead Restore=
        OwnerBy=name OwnerBy=id LinkTargets=any LinkTargets=inside ExistingDirectories=keep ExistingDirectories=settle
        MaxExtensionBytes= MaxPathDepth= MaxMembers= MaxTotalBytes= MaxRatio= MaxWindowBytes= Level= Threads= Profile=usual Profile=untrusted
        Confine=beneath Confine=nolinks VerifyGzip GzipAllMembers Bz2Framed RequireEndOfArchive EntryEvents
        MemberEvents SkipUncreatable" ;;
    --directory)
      compopt -o filenames
      mapfile -t COMPREPLY < <(compgen -d -- "$value")
      return ;;
    --file)
      compopt -o filenames
      mapfile -t COMPREPLY < <(compgen -f -- "$value")
      return ;;
  esac
  if [[ -n $option ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$value")
    [[ $cur == --*=* ]] && COMPREPLY=("${COMPREPLY[@]/#/$option=}")
    return
  fi

  if [[ $cur == --* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "--create --extract --get --list --verify --deb --file --directory --xz --zstd --auto-compress --level= --gzip
      --bzip2 --format= --match= --exclude= --prefix= --strip-paths --max-count= --to-stdout --absolute-names
      --preserve-permissions --same-permissions --no-same-permissions --same-owner --no-same-owner --numeric-owner
      --touch --dereference --xattrs --acls --sparse --reproducible --untrusted --xml --charset= --verbose --totals
      --progress --log --options= --help --version" -- "$cur")
    [[ ${COMPREPLY[0]-} == *= ]] && compopt -o nospace
    return
  fi
  if [[ $cur == -* && $cur != - ]]; then
    COMPREPLY=("$cur")  # a bundle of letters is complete as it stands
    return
  fi
  if [[ $cur == - ]]; then
    mapfile -t COMPREPLY < <(compgen -W "-c -x -t -f -C -z -j -v -O -P -p -m -h -S --" -- "$cur")
    return
  fi
  compopt -o filenames
  if [[ $prev == --directory || ($prev == -*C && $prev != --*) ]]; then
    mapfile -t COMPREPLY < <(compgen -d -- "$cur")
  else
    mapfile -t COMPREPLY < <(compgen -f -- "$cur")
  fi
}
complete -F _mvtar mvtar
