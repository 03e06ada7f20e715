# Cost of one datagram through sockets. `data` names the file.
set terminal svg size 720,440 font "sans,13" background "white"
set datafile separator "\t"
set style data histogram
set style histogram clustered gap 1
set style fill solid 0.85 noborder
set boxwidth 0.9
set logscale y
set yrange [1:*]
set ylabel "µs per datagram"
set xtics rotate by -25
set grid ytics lc rgb "#dddddd"
set key top left reverse Left
plot data using 2:xtic(1) title columnheader(2), data using 3 title columnheader(3)
