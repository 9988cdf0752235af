#!/usr/bin/python3
"""The same page from Python, without any Java: what the Java VM costs."""

import os
import urllib.parse

SETTINGS = "/app/tarn-belox/runvex/obd.conf"
KEY = "VEMODCanDetectTimeout="

fields = urllib.parse.parse_qs(os.environ.get("QUERY_STRING", ""), keep_blank_values=True)
value = fields.get("CanDetectTimeout", [None])[0]
if value is not None:
    with open(SETTINGS, encoding="latin-1", newline="") as settings:
        lines = [KEY + value + "\n" if line.startswith(KEY) else line for line in settings]
    with open(SETTINGS + ".new", "w", encoding="latin-1", newline="") as settings:
        settings.writelines(lines)
    os.replace(SETTINGS + ".new", SETTINGS)
    content = f"<p>Set CanDetectTimeout to {value} ms.</p>Set new option was successful."
else:
    content = '<p class="warn">Option CanDetectTimeout not set</p>'
print(
    "Content-Type: text/html\n\n<html>\n<head>\n"
    "<title>VEMO Web Server - SetObdConf</title>\n"
    '<link href="/css/all.css" rel="stylesheet" media="screen">\n</head>\n<body>\n'
    f'<h2>Set CanDetectTimeout</h2>\n<div class="content">\n{content}\n</div>\n</body>\n</html>'
)
raise SystemExit(0 if value is not None else 1)
