# For benches, to be sourced: captures that pelmogen makes once and that stay in `folder`. `build` is where
# pelmogen is, under bin.

# capture NAME OPTIONS...: makes the capture unless it's there from the same options, and brings it
# into the page cache. Sets `file`.
capture() {
    file=$folder/$1.pcap
    shift
    local made
    made="$* $(cksum <"$build/bin/pelmogen")"
    if [ ! -f "$file" ] || [ "$(cat "$file.options" 2>/dev/null)" != "$made" ]; then
        "$build/bin/pelmogen" --out "$file" --rate 100000 "$@"
        echo "$made" >"$file.options"
    fi
    cat "$file" >/dev/null
}

# capture_case CASE: one of the three captures that bench/throughput.sh describes.
capture_case() {
    case $1 in
    A) capture A --mix --count 2000000 ;;
    B) capture B --mix --count 1000000 --payload 1200-1470 --message-bytes 0 ;;
    C)
        capture C --mix --count 1000000 --hosts 20000 --subjects 200000 --publishers 5-400 \
            --message-bytes 50-80 --message-skew 5
        ;;
    esac
}
