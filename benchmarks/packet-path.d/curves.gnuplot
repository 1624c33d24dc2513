# The price of a packet over the number of rules: ARG1 has the figures in ns, a column for each firewall; ARG2 gets the plot.
set terminal svg size 760,440 font "sans-serif,13" background rgb "white"
set output ARG2
set datafile separator "\t"
set datafile missing "?"
set title "What a packet pays that none of N rules is about"
set xlabel "rules"
set ylabel "µs for a packet"
set logscale xy
set xrange [0.8:70000]
set yrange [1:*]
# No rule has no place on such an axis: it stands at 1.
set xtics ("none" 1, "10" 10, "100" 100, "1,000" 1000, "10,000" 10000, "50,000" 50000)
set ytics ("1" 1, "2" 2, "5" 5, "10" 10, "20" 20, "50" 50, "100" 100, "200" 200, "500" 500, "1,000" 1000, "2,000" 2000)
set grid
set key top left reverse Left
# Some curves lie one upon the other: the later ones are thinner.
set linetype 2 linecolor rgb "#0a7d3e" linewidth 5 pointtype 7 pointsize 0.5
set linetype 3 linecolor rgb "#2a7fff" linewidth 3 pointtype 7 pointsize 0.5
set linetype 4 linecolor rgb "#e07b00" linewidth 1.5 pointtype 7 pointsize 0.5
set linetype 5 linecolor rgb "#c01030" linewidth 1.5 pointtype 7 pointsize 0.5
set linetype 6 linecolor rgb "#5a00b3" linewidth 3 pointtype 7 pointsize 0.5
place(rules) = rules < 1 ? 1 : rules
array lines[6] = [0, 6, 2, 3, 4, 5]
plot for [column = 2:6] ARG1 using (place($1)):(column(column) / 1000) with linespoints linetype lines[column] \
    title columnhead(column)
