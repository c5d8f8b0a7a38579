# gnuplot tests/endure/soak.gnuplot: draws docs/soak.svg from build/soak.json, at the root of the checkout.
columns = "s descriptors threads rss_kib opened open"
samples = sprintf("< /usr/bin/python3 -c 'import json; [print(*(x[c] for c in \"%s\".split())) for x in json.load(open(\"build/soak.json\"))[\"samples\"]]'", columns)
set terminal svg size 900,1000 font "sans-serif,13" background "white"
set output "docs/soak.svg"
set multiplot layout 4,1 title "Sessions come and go at full speed"
set lmargin 12
set rmargin 4
set grid lc rgb "#dddddd"
set border 3 lc rgb "#666666"
set tics nomirror textcolor rgb "#333333"
set yrange [0:*]
set style data lines
unset key
set ylabel "descriptors"
plot samples using ($1/60):2 lc rgb "#1f77b4"
set ylabel "threads"
plot samples using ($1/60):3 lc rgb "#2ca02c"
set ylabel "RSS (MiB)"
plot samples using ($1/60):($4/1024) lc rgb "#d62728" lw 2
set ylabel "sessions (thousand)"
set xlabel "minutes"
plot samples using ($1/60):($5/1000) lc rgb "#9467bd" lw 2
unset multiplot
