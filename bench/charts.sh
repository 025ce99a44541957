#!/usr/bin/env bash
# Draws the figures of FOLDER/bench.json into FOLDER/cpu.svg and FOLDER/latency.svg.
#
#   bench/charts.sh FOLDER
set -euo pipefail
cd "$1"

machine=$(jq -r '.machine | "\(.cpu), \(.cores) cores, \(.date[:10])"' bench.json)

# A row for each contender: its name, and its CPU in milliseconds a frame, with RGBA and with NV12.
costs() {
  jq -r '
    def median: sort | .[(length - 1) / 2 | floor];
    def name: "\"" + (.[0].contender | sub("-"; "\\n")) + "\"";  # in two lines
    def cost(format): map(select(.format == format).cpu_ms) | median;
    [.runs[] | select(.take == "1920x1080" and .preset == "superfast" and .rate == 30)]
    | group_by(.contender) | map([name, cost("rgba"), cost("nv12")])
    | sort_by(.[1] // .[2])[] | map(. // "?") | join("\t")' bench.json
}

# The latency of each frame at each client, in milliseconds, in the steady run with a 1920x1080 take
# and the format $1.
latencies() {
  jq -r --arg format "$1" '
    .steady[] | select(.take == "1920x1080" and .format == $format).latency_ms[]' bench.json
}

gnuplot <<END
set terminal svg noenhanced size 900,450 font "sans-serif,14" background "white"
set grid y
set yrange [0:*]
set datafile missing "?"
set key left
set bmargin 4
\$costs << EOD
$(costs)
EOD
\$rgba << EOD
$(latencies rgba)
EOD
\$nv12 << EOD
$(latencies nv12)
EOD

set output "cpu.svg"
set title "CPU of a 640x360 preview and a 1920x1080 take, 'superfast', at 30 frames a second\n$machine"
set ylabel "ms a frame"
set style data histograms
set style fill solid
set xtics nomirror
plot \$costs using 2:xtic(1) title "RGBA", "" using 3 title "NV12"

stats \$rgba name "rgba" nooutput
stats \$nv12 name "nv12" nooutput
most = ceil(3 * (rgba_median > nv12_median ? rgba_median : nv12_median))
bin(x) = 0.25 * floor((x < most ? x : most) / 0.25) + 0.125
set key right
set output "latency.svg"
set title "Latency from writeFrame to a client's packet, with a 1920x1080 take at 60 frames a second\n$machine"
set xlabel "ms, in steps of 0.25; the last bar has everything later"
set ylabel "% of the frames"
set style fill transparent solid 0.6
set boxwidth 0.25
set xrange [0:most + 0.5]
set xtics autofreq
plot \$rgba using (bin(\$1)):(100.0 / rgba_records) smooth frequency with boxes title "RGBA", \
  \$nv12 using (bin(\$1)):(100.0 / nv12_records) smooth frequency with boxes title "NV12"
END
