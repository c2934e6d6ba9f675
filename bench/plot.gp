# SPDX-License-Identifier: Apache-2.0
# The ratios to the peer, one bar per operation and file system; bars to the right are in our favour.
# gnuplot -e "ratios='FILE'; picture='FILE.svg'" bench/plot.gp
set terminal svg size 1000,640 font 'sans-serif,12' noenhanced background '#ffffff'
set output picture
stats ratios using ($0) nooutput
count = STATS_records

set multiplot layout 1,2 margins screen 0.27, screen 0.98, screen 0.06, screen 0.88
set yrange [count - 0.3:-0.7]
set xrange [*:*]
set logscale x 2
set grid xtics linecolor '#dddddd' linetype 1
set arrow 1 from first 1, graph 0 to first 1, graph 1 nohead linecolor '#444444' back
set format x '%gx'
set key at screen 0.99, screen 0.99 horizontal
set border 1
set ytics scale 0
set xtics nomirror

set lmargin at screen 0.27
set rmargin at screen 0.60
set title 'Calls per second, ours / peer'
plot ratios using (1):($0 - 0.16):($2 - 1):(0):yticlabels(1) with vectors nohead linewidth 6 linecolor '#3b6ea5' title 'disk', \
     ratios using (1):($0 + 0.16):($3 - 1):(0) with vectors nohead linewidth 6 linecolor '#e0a458' title 'memory'

set lmargin at screen 0.63
set rmargin at screen 0.98
unset ytics
unset key
set title 'Server CPU per call, peer / ours'
plot ratios using (1):($0 - 0.16):($4 - 1):(0) with vectors nohead linewidth 6 linecolor '#3b6ea5', \
     ratios using (1):($0 + 0.16):($5 - 1):(0) with vectors nohead linewidth 6 linecolor '#e0a458'
unset multiplot
