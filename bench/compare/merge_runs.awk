# merge_runs.awk - folds the rows of several runs of the comparison programs
# into one row per operation and implementation: the median of the runs'
# medians and of their 99th percentiles. On a shared virtual machine single
# runs scatter (memory latency and CPU placement vary from run to run); the
# median run is the figure a user can expect. Other lines pass through once.
BEGIN { FS = OFS = "\t" }
function median(list,    a, n, i, j, t) {
    n = split(list, a, " ")
    for (i = 2; i <= n; i++)
        for (j = i; j > 1 && a[j - 1] + 0 > a[j] + 0; j--) { t = a[j]; a[j] = a[j - 1]; a[j - 1] = t }
    return n % 2 ? a[(n + 1) / 2] : (a[n / 2] + a[n / 2 + 1]) / 2
}
$1 != "ROW" { if (!seen[$0]++) print; next }
{
    k = $2 SUBSEP $3
    if (!(k in med)) { order[++n] = k; unit[k] = $6; note[k] = $7; op[k] = $2; impl[k] = $3; runs[k] = 0 }
    med[k] = med[k] " " $4
    p99[k] = $5 == "-" ? "-" : p99[k] " " $5
    if ($0 ~ /FAILED/) failed[k] = $0
    runs[k]++
}
END {
    for (i = 1; i <= n; i++) {
        k = order[i]
        if (k in failed) { print failed[k]; continue }
        more = runs[k] > 1 ? "median of " runs[k] " runs" : ""
        print "ROW", op[k], impl[k], median(med[k]), p99[k] == "-" ? "-" : median(p99[k]), unit[k], \
              note[k] (note[k] != "" && more != "" ? ", " : "") more
    }
}
