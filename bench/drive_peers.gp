# Draws bench/drive_peers.sh's figures: one bar per bound or drive figure,
# in MB/s. Run from the data's directory:
#   gnuplot -e "data='drive_peers.dat'; out='drive_peers.png'" drive_peers.gp
if (!exists("data")) data = "drive_peers.dat"
if (!exists("out")) out = "drive_peers.png"
set terminal pngcairo size 1600,700 font "sans,9"
set output out
set title "Drives beside their bounds (1 GiB file; writes: until the server holds every byte)"
set ylabel "MB/s (log scale)"
set logscale y
set style fill solid 0.7 border -1
set boxwidth 0.8
set grid ytics
set xtics rotate by -60 left noenhanced
set key off
set rmargin 16
plot data using 0:3:xtic(strcol(1)." | ".strcol(2)) with boxes lc rgb "#4472c4", \
     "" using 0:3:(sprintf("%.0f", $3)) with labels offset 0,0.7 font "sans,8"
