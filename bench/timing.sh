# Timing helpers the benchmark scripts share; sourced, with $runs set by the caller.

now() { date +%s.%N; }
seconds() {  # command...: wall seconds, output discarded
  local start; start=$(now); "$@" > /dev/null 2>&1; awk -v a="$start" -v b="$(now)" 'BEGIN { printf "%.3f", b - a }'
}
best() {  # cleanup command, then the measured command...: best of the runs
  local cleanup=$1; shift
  local best=999999 t
  eval "$cleanup"; "$@" > /dev/null 2>&1 || true  # warm-up
  for _ in $(seq 1 "$runs"); do
    eval "$cleanup"; sync
    t=$(seconds "$@")
    best=$(awk -v a="$t" -v b="$best" 'BEGIN { print (a < b) ? a : b }')
  done
  eval "$cleanup"
  echo "$best"
}
