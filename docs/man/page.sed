# Words with hyphens are names and options here: pages are read in narrow windows, and copied from.
/^\.TH /i .nr HY 0
s/\([[:alnum:]]\)-\([[:alnum:]]\)/\1\\-\2/g
