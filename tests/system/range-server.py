#!/usr/bin/python3
# Serves the files of one directory on 127.0.0.1 over HTTP/1.1 with byte
# ranges, as an update server does: 206 for one range, multipart/byteranges
# for several, 416 for none that fits. It writes the port it got into
# PORT_FILE, one line a request into LOG_FILE (path, ranges asked, status,
# body bytes sent), and stops by itself after SECONDS.
#   tests/system/range-server.py DIR PORT_FILE LOG_FILE SECONDS
import http.server
import os
import sys
import time
import urllib.parse

BOUNDARY = "tavelin-range-boundary"


def ranges_of(header, length):
    """[(first, last)] of a "bytes=" header, [] when none fits, None when it is no byte range."""
    unit, _, spec = header.partition("=")
    if unit.strip() != "bytes" or not spec:
        return None
    ranges = []
    for part in spec.split(","):
        first, dash, last = part.strip().partition("-")
        if not dash or not (first.isdigit() or last.isdigit()):
            return None
        if not first:  # the last N bytes
            first, last = max(length - int(last), 0), length - 1
        else:
            first, last = int(first), min(int(last), length - 1) if last else length - 1
        if first <= last:
            ranges.append((first, last))
    return ranges


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def do_GET(self):
        name = urllib.parse.unquote(urllib.parse.urlsplit(self.path).path).lstrip("/")
        path = os.path.join(self.server.root, name)
        if "/" in name or not name or not os.path.isfile(path):
            return self.answer(404, [], b"")
        with open(path, "rb") as file:
            data = file.read()
        asked = self.headers.get("Range")
        ranges = ranges_of(asked, len(data)) if asked else None
        if ranges is None:
            return self.answer(200, [("Content-Type", "application/octet-stream")], data, asked)
        if not ranges:
            return self.answer(416, [("Content-Range", f"bytes */{len(data)}")], b"", asked)
        if len(ranges) == 1:
            first, last = ranges[0]
            return self.answer(206, [("Content-Type", "application/octet-stream"),
                                     ("Content-Range", f"bytes {first}-{last}/{len(data)}")],
                               data[first:last + 1], asked)
        body = b"".join(f"\r\n--{BOUNDARY}\r\nContent-Type: application/octet-stream\r\n"
                        f"Content-Range: bytes {first}-{last}/{len(data)}\r\n\r\n".encode() + data[first:last + 1]
                        for first, last in ranges) + f"\r\n--{BOUNDARY}--\r\n".encode()
        self.answer(206, [("Content-Type", f"multipart/byteranges; boundary={BOUNDARY}")], body, asked)

    def answer(self, status, headers, body, asked=None):
        self.send_response(status)
        for key, value in headers + [("Content-Length", str(len(body)))]:
            self.send_header(key, value)
        self.end_headers()
        self.wfile.write(body)
        with open(self.server.log, "a") as log:
            print(self.path, asked or "-", status, len(body), file=log)

    def log_message(self, *args):
        pass


def main():
    if len(sys.argv) != 5:
        sys.exit("usage: range-server.py DIR PORT_FILE LOG_FILE SECONDS")
    root, port_file, log, seconds = sys.argv[1:]
    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
    server.daemon_threads = True
    server.root, server.log, server.timeout = root, log, 0.5
    with open(port_file + ".part", "w") as file:
        print(server.server_address[1], file=file)
    os.rename(port_file + ".part", port_file)
    deadline = time.monotonic() + float(seconds)
    while time.monotonic() < deadline:
        server.handle_request()


if __name__ == "__main__":
    main()
