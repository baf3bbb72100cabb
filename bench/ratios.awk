# Turns the medians of Google Benchmark's JSON, one field per line, into the table of ratios.
# Files: targets, then one or more results. A benchmark is named area/job/contender.

function text_of(line) {
    sub(/^[^:]*: *"?/, "", line)
    sub(/"?,?[ \t\r]*$/, "", line)
    return line
}

function shown(time) {
    if (time >= 1e6)
        return sprintf("%.4g ms", time / 1e6)
    return time >= 1e3 ? sprintf("%.4g us", time / 1e3) : sprintf("%.3g ns", time)
}

function add_target(job, peer, limit) {
    target[job, peer] = limit
    place(job)
}

# Repetitions come in random order, the table in that of the targets.
function place(job) {
    if (!(job in place_of))
        jobs[place_of[job] = ++job_count] = job
}

function verdict(job, peer, ours, theirs,    limit) {
    if (!((job, peer) in target))
        return "- | "
    limit = target[job, peer]
    if (limit ~ /ns$/)
        return sprintf("+%g ns | %s", limit + 0, ours - theirs <= limit + 0 ? "met" : "MISSED")
    return sprintf("%g | %s", limit, ours / theirs <= limit + 0 ? "met" : "MISSED")
}

FILENAME ~ /targets$/ {
    if ($0 !~ /^#/ && NF == 3)
        add_target($1, $2, $3)
    next
}
/"run_name":/ { name = text_of($0) }
/"run_type":/ { is_median = 0 }
/"aggregate_name":/ { is_median = text_of($0) == "median" }
/"real_time":/ { wall_time = text_of($0) + 0 }
/"cpu_time":/ { time = text_of($0) + 0 }
/"error_message":/ { print "failed: " name ": " text_of($0); failures = 1 }
/"time_unit":/ && is_median {
    scale = text_of($0) == "ms" ? 1e6 : text_of($0) == "us" ? 1e3 : 1
    job = name
    if (sub(/\/(manual|real)_time$/, "", job)) # the CPU time is only that of whoever waits
        time = wall_time
    name = job
    sub(/\/[^\/]*$/, "", job)
    contender = substr(name, length(job) + 2)
    if (contender == "korvaks") {
        ours[job] = time * scale
        place(job)
    } else {
        peers[job] = peers[job] " " contender
        theirs[job, contender] = time * scale
    }
}
END {
    print "| job | time | peer | its time | ratio | target | |"
    print "|---|---:|---|---:|---:|---:|---|"
    for (i = 1; i <= job_count; ++i) {
        job = jobs[i]
        if (!(job in ours))
            continue
        count = split(peers[job], names, " ")
        if (count == 0)
            printf "| %s | %s | - | | | | |\n", job, shown(ours[job])
        for (n = 1; n <= count; ++n) {
            peer = names[n]
            printf "| %s | %s | %s | %s | %.2f | %s |\n", job, shown(ours[job]), peer, shown(theirs[job, peer]),
                ours[job] / theirs[job, peer], verdict(job, peer, ours[job], theirs[job, peer])
        }
    }
    exit failures
}
