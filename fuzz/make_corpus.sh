#!/usr/bin/env bash
# Makes the first inputs of the corpus with the system's tar tools: bash fuzz/make_corpus.sh
set -euo pipefail
cd "$(dirname "$0")"
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
long=$(printf 'long%.0s' {1..40})
mkdir -p "$scratch/t/dir/$long" corpus/{header,pax,gzipHeader,lzw,archive,pullAgainstPush}
echo hello >"$scratch/t/dir/a.txt"
echo deep >"$scratch/t/dir/$long/$long.txt"
ln -s a.txt "$scratch/t/dir/link"
ln -s "$long" "$scratch/t/dir/longlink"
ln "$scratch/t/dir/a.txt" "$scratch/t/dir/hard"
pack() { tar -C "$scratch" --owner=0 --group=0 --mtime=@1700000000 --sort=name -b1 "$@" t; }
for format in v7 ustar oldgnu gnu pax; do
  pack --format=$format -cf "$scratch/$format.tar" 2>/dev/null || true
  cp "$scratch/$format.tar" corpus/archive/$format.tar
  cp "$scratch/$format.tar" corpus/pullAgainstPush/$format.tar
  head -c 512 "$scratch/$format.tar" >corpus/header/$format
done
pack --format=pax --pax-option=comment=all,mtime:=1.25 -cf corpus/pullAgainstPush/global.tar
tail -c +513 "$scratch/pax.tar" | head -c 300 >corpus/pax/records
printf '19 path=with\nbreak\n12 size=17\n20 mtime=1700000.25\n11 path=x\n' >corpus/pax/mixed
gzip -nc "$scratch/gnu.tar" >corpus/gzipHeader/plain.gz
(cd "$scratch" && gzip -k gnu.tar) && cp "$scratch/gnu.tar.gz" corpus/gzipHeader/named.gz
for bits in 9 12 16; do compress -b $bits -c "$scratch/gnu.tar" >corpus/lzw/gnu.$bits.Z; done
