# CPU time of one reliable message, by transport and size. `data` names the file.
set terminal svg size 720,400 font "sans,13" background "white"
set datafile separator "\t"
set style data histogram
set style histogram clustered gap 1
set style fill solid 0.85 noborder
set boxwidth 0.9
set logscale y
set yrange [50:*]
set ylabel "ns per message, both ends"
set grid ytics lc rgb "#dddddd"
set key top left reverse Left
stats data skip 1 nooutput
plot for [i = 2:STATS_columns] data using i:xtic(1) title columnheader(i)
