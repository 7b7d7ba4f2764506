#!/usr/bin/env bash
# nginx and a SOCKS5 proxy on loopback, for tests and benchmarks; everything they have lies in FOLDER.
# Usage: https_server.sh start FOLDER    prints "HTTP_PORT HTTPS_PORT SOCKS_PORT"
#        https_server.sh stop FOLDER
# FOLDER/files is served under /files/ (GET, PUT, DELETE). HTTPS wants a client certificate of ca.pem:
# client.pem is right; expired.pem and stranger.pem are not. QXCA, ECA and EXPIRED select other chains.
set -euo pipefail
export PATH=$PATH:/usr/sbin
mkdir -p "$2/files" "$2/tmp"
cd "$2"
if [ "$1" = stop ]; then
  kill "$(cat socks.pid)" "$(cat nginx.pid)"
  while [ -e nginx.pid ]; do sleep 0.01; done
  exit
fi
certificate() { # NAME [AUTHORITY DAYS]
  local request=(req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout "$1.key" -subj "/CN=$1")
  [ $# -gt 1 ] || { openssl "${request[@]}" -x509 -days 2 -out "$1.pem"; return; }
  openssl "${request[@]}" -out "$1.csr"
  openssl x509 -req -in "$1.csr" -CA "$2.pem" -CAkey "$2.key" -CAcreateserial -days "$3" -out "$1.pem" \
    -extfile <(echo "subjectAltName=DNS:localhost,IP:127.0.0.1")
}
listens() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }
free_port() { # below those that the kernel gives to connections
  while port=$((10000 + RANDOM % 20000)); listens $port; do :; done
  echo $port
}
tls_server() { # NAME CERTIFICATE
  echo "server { listen 127.0.0.1:$https ssl; listen 127.0.0.2:$https ssl; $listen_v6 server_name $1; include server.conf;
    ssl_certificate $2.pem; ssl_certificate_key $2.key; ssl_client_certificate ca.pem; ssl_verify_client on; }"
}
for words in ca eca "server ca 2" "eca-server eca 2" "client ca 2" "stranger eca 2" "expired ca -1"; do
  # shellcheck disable=SC2086
  certificate $words 2>>openssl.log
done
http=$(free_port) https=$(free_port) socks=$(free_port)
# The proxy takes the first address of localhost, which is ::1 where the hosts file has it.
listen_v6=
! grep -qs '^0*1 ' /proc/net/if_inet6 || listen_v6="listen [::1]:$https ssl;"
cat >server.conf <<END
location /files/ { dav_methods PUT DELETE; create_full_put_path on; }
location /echo { echo_read_request_body; echo -n \$echo_client_request_headers; echo_request_body; }
location /moved { return 302 /files/; }
location /slow/ { limit_rate 1k; alias $PWD/files/; }
location /cut { chunked_transfer_encoding off; add_header Content-Length 9; echo -n abc; }
location /who { return 200 "\$ssl_server_name \$ssl_client_s_dn"; }
END
cat >nginx.conf <<END
load_module /usr/lib/nginx/modules/ngx_http_echo_module.so;
$([ "$(id -u)" -ne 0 ] || echo "user root;")
pid $PWD/nginx.pid;
events { }
http {
  access_log off; root $PWD; sendfile on; keepalive_requests 1000000;
  client_max_body_size 0; client_body_buffer_size 2m; client_body_temp_path tmp;
  proxy_temp_path tmp; fastcgi_temp_path tmp; uwsgi_temp_path tmp; scgi_temp_path tmp;
  server { listen 127.0.0.1:$http; include server.conf; }
  $(tls_server localhost server) $(tls_server QXCA server) $(tls_server ECA eca-server) $(tls_server EXPIRED expired)
}
END
nginx -p "$PWD" -e "$PWD/error.log" -c "$PWD/nginx.conf"
microsocks -i 127.0.0.1 -p "$socks" </dev/null >socks.log 2>&1 &
echo $! >socks.pid
until listens "$socks" || ! kill -0 $!; do sleep 0.01; done
echo "$http $https $socks"
