# SPDX-License-Identifier: MIT
#
# gnuplot -e "csv='FILE'; folder='FOLDER'" plots.gnuplot
set datafile separator ','
set terminal svg size 800,480 background rgb 'white' font 'sans-serif,13'
set key left top reverse Left
set grid
set logscale xy
set format y '10^{%L}'
set ylabel 'instructions'

# The lines of one group that belong to a slot and an operation. Columns 8, 9 and 12: the
# library, the bare calls and the loop.
rows(group, operation) = sprintf( \
    "< awk -F, '$1 == \"shared\" && $2 == \"%s\" && $3 == \"zel0\" && $4 == \"%s\"' %s", \
    group, operation, csv)

set output folder . '/board-size.svg'
set title 'Reading a contiguous piece of memory from a Zel slot'
set xlabel 'bytes'
set logscale x 2
set xtics ('512' 512, '4 KiB' 4096, '64 KiB' 65536, '1 MiB' 1048576)
plot rows('size', 'DevDrctRead') using 7:12 with linespoints title 'pread, page cache warm', \
     '' using 7:8 with linespoints title 'DevDrctRead', \
     '' using 7:9 with linespoints dashtype 2 title 'the bare calls'

set output folder . '/board-chunks.svg'
set title 'Reading scattered pieces of 512 bytes from a Zel slot'
set xlabel 'pieces'
set xtics ('1' 1, '8' 8, '64' 64, '512' 512, '2047' 2047)
plot rows('growth', 'DevDrctRead') using 6:12 with linespoints title 'pread for each, page cache warm', \
     '' using 6:8 with linespoints title 'DevDrctRead', \
     '' using 6:9 with linespoints dashtype 2 title 'the bare calls'
