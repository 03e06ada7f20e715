# Latency of a reliable message over the loss of the network. `data` names the file.
set terminal svg size 720,400 font "sans,13" background "white"
set datafile separator "\t"
set style data linespoints
set logscale y
set xlabel "datagrams lost each way, %"
set ylabel "ms from sending to delivery"
set xrange [0:*]
set grid lc rgb "#dddddd"
set key top left reverse Left
plot data using 1:2 lw 2 pt 7 title columnheader(2), \
     data using 1:3 lw 2 pt 5 title columnheader(3)
