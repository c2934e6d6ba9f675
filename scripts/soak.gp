# SPDX-License-Identifier: Apache-2.0
# What the daemon used during the mixed load: resident memory and descriptors over time.
# gnuplot -e "directory='docs'; picture='FILE.svg'" scripts/soak.gp
set terminal svg size 900,640 font 'sans-serif,12' noenhanced background '#ffffff'
set output picture
set datafile separator ','
set grid linecolor '#dddddd'
set border 3
set tics nomirror
set xrange [0:*]
set yrange [0:*]
file(preset, mode) = sprintf('%s/soak-%s-%s.csv', directory, preset, mode)
has(preset, mode) = int(system(sprintf("test -f %s && echo 1 || echo 0", file(preset, mode))))
shown(preset, mode) = has(preset, mode) ? file(preset, mode) : '/dev/null'
presets = 'release asan tsan'
colours = '#3b6ea5 #e0a458 #6a994e'
array Modes[2] = ['default', 'hardened']
set multiplot layout 2,2
do for [column = 4:5] {
  do for [m = 1:2] {
    set title sprintf('%s, %s', Modes[m], column == 4 ? 'resident MiB' : 'descriptors')
    set xlabel 'minutes'
    set key bottom right
    plot for [p = 1:words(presets)] shown(word(presets, p), Modes[m]) skip 1 \
         using ($1 / 60):(column(column) / (column == 4 ? 1024.0 : 1)) with lines linewidth 1.5 \
         linecolor rgb word(colours, p) title word(presets, p)
  }
}
unset multiplot
