# report.awk - turns the ROW lines of the comparison programs into Markdown:
# one table of all measurements with the ratio of KvRfrSvr's median to each
# peer's, then the goals with the measured figure and whether it is met.
# Input: ROW <group> <name> <median> <p99> <unit> <note>, tab-separated.
BEGIN { FS = "\t" }

$1 == "ROW" {
    g = $2
    if (!(g in seen)) { seen[g] = 1; groups[++ng] = g }
    k = g SUBSEP (++nrow[g])
    name[k] = $3; med[k] = $4; p99[k] = $5; unit[k] = $6; note[k] = $7
    if (!((g) in ours) && $3 ~ /^KvRfrSvr/) ours[g] = med[k]
    val[g SUBSEP $3] = $4
}

function fmt(v, u) {
    if (v == "-") return "-"
    if (u == "B") return sprintf("%.1f B", v)
    if (v >= 1000000) return sprintf("%.2f ms", v / 1000000)
    if (v >= 10000) return sprintf("%.2f us", v / 1000)
    if (v >= 100) return sprintf("%.0f ns", v)
    return sprintf("%.1f ns", v)
}

# The group whose name starts with prefix (the first, or with last=1 the last).
function find_group(prefix, last,    i, r) {
    r = ""
    for (i = 1; i <= ng; i++)
        if (index(groups[i], prefix) == 1) { r = groups[i]; if (!last) return r }
    return r
}

# One goal line: what, target, measured text, verdict.
function goal(what, target, measured, ok) {
    printf("| %s | %s | %s | %s |\n", what, target, measured, measured == "not measured" ? "-" : (ok ? "met" : "**missed**"))
}

function ratio_goal(what, g, peer, limit,    o, p) {
    if (g == "" || !(g in ours) || !((g SUBSEP peer) in val)) { goal(what, "<= " limit "x", "not measured", 0); return }
    o = ours[g]; p = val[g SUBSEP peer]
    goal(what, "<= " limit "x", sprintf("%.2fx (%s vs %s)", o / p, fmt(o, "ns"), fmt(p, "ns")), o <= limit * p)
}

# Two rows of one group: mine against peer.
function pair_goal(what, g, mine, peer, limit,    o, p) {
    if (!((g SUBSEP mine) in val) || !((g SUBSEP peer) in val)) { goal(what, "<= " limit "x", "not measured", 0); return }
    o = val[g SUBSEP mine]; p = val[g SUBSEP peer]
    goal(what, "<= " limit "x", sprintf("%.2fx (%s vs %s)", o / p, fmt(o, "ns"), fmt(p, "ns")), o <= limit * p)
}

function abs_goal(what, g, limit, u,    o) {
    if (g == "" || !(g in ours)) { goal(what, "<= " fmt(limit, u), "not measured", 0); return }
    o = ours[g]
    goal(what, "<= " fmt(limit, u), fmt(o, u), o <= limit)
}

END {
    print "| Operation | Implementation | Median | p99 | KvRfrSvr / this (median) |"
    print "|---|---|---:|---:|---:|"
    for (i = 1; i <= ng; i++) {
        g = groups[i]
        for (j = 1; j <= nrow[g]; j++) {
            k = g SUBSEP j
            r = ((g in ours) && med[k] > 0) ? sprintf("%.2f", ours[g] / med[k]) : "-"
            n = name[k] (note[k] != "" ? " (" note[k] ")" : "")
            printf("| %s | %s | %s | %s | %s |\n", j == 1 ? g : "", n, fmt(med[k], unit[k]), fmt(p99[k], unit[k]), r)
        }
    }
    print ""
    print "| Goal | Target | Measured | |"
    print "|---|---|---|---|"
    rt = "Round trip between two processes"
    abs_goal("Round trip, two processes", rt, 1500, "ns")
    ratio_goal("Round trip vs Boost message_queue polling with try_receive", rt, "Boost message_queue, try_receive polling", 0.5)
    abs_goal("Trivial exported call (KvRsGetNodeType)", find_group("Trivial call", 0), 60, "ns")
    boost = "Boost map in managed_shared_memory"
    ratio_goal("Depth-3 path lookup, 100k leaves", find_group("Look up a depth-3 path, random order (100k", 0), boost, 1.0)
    ratio_goal("Depth-3 leaf creation, 100k leaves", find_group("Create a depth-3 leaf (100k", 0), boost, 1.0)
    g = find_group("Notify one client, take the message, release it (100k", 0)
    ratio_goal("Notify + take + release vs Boost message_queue, 100k leaves", g, "Boost map + message_queue", 1.0)
    ratio_goal("Notify + take + release vs Boost deque, 100k leaves", g, "Boost map + deque in the segment", 1.0)
    first = find_group("Look up one child among", 0); last = find_group("Look up one child among", 1)
    if (first != "" && last != first && (first in ours) && (last in ours))
        goal("Child lookup: " substr(last, 25) " vs " substr(first, 25), "<= 3x",
             sprintf("%.2fx (%s vs %s)", ours[last] / ours[first], fmt(ours[last], "ns"), fmt(ours[first], "ns")),
             ours[last] <= 3 * ours[first] && index(last, "do not fit") == 0)
    else
        goal("Child lookup among 1M vs among 1k", "<= 3x", "not measured", 0)
    abs_goal("Bytes per leaf node, 100k leaves", find_group("Bytes per leaf node (100k", 0), 100, "B")
    pair_goal("Round trip, both sides blocked in KvRsWaitMsg, vs a pipe pair", rt, "KvRfrSvr notify + KvRsWaitMsg", "pipe pair", 0.25)
    pair_goal("Round trip, both sides in epoll on KvRsGetWaitFd, vs a pipe pair", rt, "KvRfrSvr notify + epoll on KvRsGetWaitFd", "pipe pair", 0.5)
    wk = "Wake-up of a receiver asleep for 5 ms"
    pair_goal("Wake-up after sleep, KvRsWaitMsg vs a pipe", wk, "KvRfrSvr notify, KvRsWaitMsg", "pipe, blocking read", 1.25)
    pair_goal("Wake-up after sleep, epoll vs a pipe", wk, "KvRfrSvr notify, epoll on KvRsGetWaitFd", "pipe, blocking read", 1.5)
    abs_goal("CPU of an idle waiter in 2 s", "CPU used by an idle waiter in 2 s", 20000000, "ns")
}
