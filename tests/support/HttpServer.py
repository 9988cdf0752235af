# Takes one HTTP request, writes to a file what it understood of it, and answers as the nVm service
# does:
#
#   HttpServer.py ADDRESS PORT FILE

import http.server
import sys
import urllib.parse

ANSWER = b"<?xml version='1.0'?><answer/>"


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def do_GET(self):
        body = self.rfile.read(int(self.headers["Content-Length"]))
        self.connection.setblocking(False)
        left_over = len(self.rfile.peek())
        self.connection.setblocking(True)
        url = urllib.parse.urlsplit(self.path)
        lines = [f"method: {self.command}", f"path: {url.path}", f"query: {url.query}",
                 f"version: {self.request_version}"]
        lines += [f"header {name}: {value}" for name, value in self.headers.items()]
        lines += [f"body: {body.decode()}", f"left over: {left_over}"]
        with open(sys.argv[3], "w") as file:
            file.write("\n".join(lines) + "\n")

        self.send_response(200)
        self.send_header("content-length", str(len(ANSWER)))
        self.end_headers()
        self.wfile.write(ANSWER)
        self.close_connection = True

    def log_message(self, *arguments):
        pass


http.server.HTTPServer((sys.argv[1], int(sys.argv[2])), Handler).handle_request()
