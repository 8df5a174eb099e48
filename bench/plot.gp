# Draws the two plots of speed_bench's data. Run from the data's directory:
#   gnuplot -e "out='speed.png'" plot.gp
if (!exists("out")) out = "speed.png"
set terminal pngcairo size 1200,480 font "sans,10"
set output out
set multiplot layout 1,2
set grid
set key top left

set title "Warm sequential reads: throughput by read size"
set xlabel "read size (KiB)"
set ylabel "GB/s"
set logscale x 2
plot "warm_by_size.dat" using 1:($2/1000) with linespoints title "library", \
     "" using 1:($3/1000) with linespoints title "pread of the cache file"

set title "Cold 4 KiB reads: median latency by remote latency (1 GB/s)"
set xlabel "remote latency (ms)"
set ylabel "read latency (ms)"
set logscale xy 10
set xrange [0.08:25]
plot "cold_by_latency.dat" using 1:2 with linespoints title "library", \
     "" using 1:3 with linespoints title "first sector due"
unset multiplot
