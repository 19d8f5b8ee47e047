# Fails when the file system of this directory has less than 1 MiB left.
free=$(df -Pk . | awk 'NR == 2 { print $4 }')
echo "$free KiB free"
[ "$free" -ge 1024 ] || { echo "too little space" >&2; exit 1; }
