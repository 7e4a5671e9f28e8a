#!/bin/sh
# relayd.sh RELAYD: the example relay between real programs: an HTTP server and curl, redis-server and
# redis-benchmark. Not one byte or descriptor may be lost.
relayd=$1
size=${2:-1073741824}  # of what is downloaded and uploaded
# shellcheck source=tests/apps/expect.sh
. "$(dirname "$0")/expect.sh"
PATH=$PATH:/usr/sbin

web=$("$(dirname "$0")/../../tools/free-ports" 4)
web_relayed=$((web + 1))
redis=$((web + 2))
redis_relayed=$((web + 3))

# ---- the servers ----

files=$dir/files
mkdir "$files"
cat >"$files/upload" <<'END'
#!/bin/sh
printf 'Content-Type: text/plain\r\n\r\n'
sha256sum
END
chmod 755 "$dir" "$files" "$files/upload"
cat >"$dir/httpd.conf" <<END
ServerRoot $dir
PidFile $dir/httpd.pid
ErrorLog $dir/httpd.log
ServerName localhost
Listen 127.0.0.1:$web
LoadModule mpm_prefork_module /usr/lib/apache2/modules/mod_mpm_prefork.so
LoadModule authz_core_module /usr/lib/apache2/modules/mod_authz_core.so
LoadModule alias_module /usr/lib/apache2/modules/mod_alias.so
LoadModule cgi_module /usr/lib/apache2/modules/mod_cgi.so
DocumentRoot $files
ScriptAlias /upload $files/upload
User nobody
Group nogroup
END
apache2 -X -f "$dir/httpd.conf" >"$dir/httpd.out" 2>&1 &
pids="$pids $!"

# The binary of the server is that of its checking tool, by another name.
mkdir "$dir/bin"
ln -s "$(command -v redis-check-rdb)" "$dir/bin/redis-server"
"$dir/bin/redis-server" --port "$redis" --bind 127.0.0.1 --save '' >"$dir/redis.out" &
pids="$pids $!"

cat >"$dir/relayd.conf" <<END
[rules]
web = 127.0.0.1:$web_relayed; 127.0.0.1:$web
redis = 127.0.0.1:$redis_relayed; 127.0.0.1:$redis
END
VORNTRC_FILENAME=$dir/log "$relayd" -C "$dir/relayd.conf" &
relay=$!
pids="$pids $relay"

descriptors() { find "/proc/$relay/fd" -mindepth 1 | wc -l; }
answers() { curl -s -o /dev/null "http://127.0.0.1:$1/"; }
pings() { [ "$(redis-cli -p "$1" ping)" = PONG ]; }
has_descriptors() { [ "$(descriptors)" -eq "$1" ]; }

await has "$dir/log" 'redis: 127.0.0.1:'
before=$(descriptors)
await answers "$web"
await answers "$web_relayed"
await pings "$redis"
await pings "$redis_relayed"

# ---- a large file, both ways ----

head -c "$size" /dev/urandom >"$files/large"
chmod 644 "$files/large"
digest=$(sha256sum <"$files/large")

received=$(curl -sS "http://127.0.0.1:$web_relayed/large" | sha256sum)
expect [ "$received" = "$digest" ]

received=$(curl -sS -T "$files/large" "http://127.0.0.1:$web_relayed/upload")
expect [ "$received" = "$digest" ]
rm "$files/large"

# Several at a time, all ended by their clients halfway.
for _ in 1 2 3 4 5; do
  head -c 10000000 /dev/zero | timeout 0.2 curl -s --limit-rate 1M -T - \
    "http://127.0.0.1:$web_relayed/upload" >/dev/null &
  callers="${callers-} $!"
done
# shellcheck disable=SC2086  # a list of words
wait $callers || true

# ---- many small messages ----

redis-benchmark -p "$redis_relayed" -c 50 -n 50000 -t set,get,lrange_600 -d 1000 --csv >"$dir/bench"
expect [ "$(grep -c '^"[A-Z]' "$dir/bench")" -ge 3 ]
redis-benchmark -p "$redis_relayed" -c 50 -n 51200 -P 32 -t incr --csv >"$dir/bench"
expect [ "$(redis-cli -p "$redis" get counter:__rand_int__)" = 51200 ]

# ---- what is left ----

await has_descriptors "$before"
refuse grep -q ' ERR ' "$dir/log"
opened=$(count "$dir/log" ' bytes to the target, ')
expect [ "$opened" -ge 100 ]
# Of the large file, not a byte less has passed, and some more for the headers.
passed() {
  sed -n "s/.* \([0-9]*\) bytes to the target, \([0-9]*\) back.*/\\$1/p" "$dir/log" | sort -n | tail -1
}
expect [ "$(passed 1)" -gt "$size" ]
expect [ "$(passed 2)" -gt "$size" ]

kill -TERM "$relay"
wait "$relay" || fail "exit status $? after SIGTERM"
echo "relayd: all is well"
