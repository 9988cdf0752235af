"""By which an attacker's page, or an attacker's text in a page of the device, makes a browser ask: each way by its
name. {u} is the address that is asked, in scripts within single quotes. Of the ways that make a browser send
requests with the same method and headers, but for the body and its type, one stands here."""

HARM = "document.title='harm'"
WDDX = (
    "<?xml version='1.0' encoding='UTF-8'?><!DOCTYPE wddxPacket SYSTEM "
    "'http://www.openwddx.org/downloads/dtd/wddx_dtd_10.txt'><wddxPacket version='1.0'><header/>"
    "<data><struct><var name='DeviceOwner'><string>EVIL</string></var>"
    "<var name='IfhClientIpAddr'><string>127.0.0.1</string></var></struct></data></wddxPacket>"
)


# --- What foreign pages try

def form(encoding, **fields):
    inputs = "".join(f'<input type=hidden name="{name}" value="{value}">' for name, value in fields.items())
    return (f"<form action='{{u}}' method=post enctype='{encoding}'>{inputs}</form>"
            "<script>document.forms[0].submit()</script>")


# It sends NAME=VALUE: a whole packet, cut at its first sign of that kind.
FORM_OF_TEXT = form("text/plain", **dict([WDDX.split("=", 1)]))
NO_REFERRER = "<meta name=referrer content=no-referrer>"


def speculation(kind):
    rule = '{"source":"list","urls":["{u}"],"eagerness":"immediate"}'
    return f'<script type=speculationrules>{{"{kind}":[{rule}]}}</script>'


# Parts of one page; each script on its own: what fails hinders no other.
PARTS = {
    "img": "<img src='{u}'>",
    "img-no-referrer": "<img referrerpolicy=no-referrer src='{u}'>",
    "img-anonymous": "<img crossorigin=anonymous src='{u}'>",
    "css-background": "<i style=\"display:block;width:9px;height:9px;background:url('{u}')\"></i>",
    "stylesheet": "<link rel=stylesheet href='{u}'>",
    "script": "<script src='{u}'></script>",
    "video": "<video src='{u}' preload=auto></video>",
    "embed": "<embed src='{u}'>",
    "object": "<object data='{u}'></object>",
    "iframe": "<iframe src='{u}'></iframe>",
    "prefetch": "<link rel=prefetch href='{u}'>",
    "prefetch-document": "<link rel=prefetch as=document href='{u}'>",
    "speculation-prefetch": speculation("prefetch"),
    "speculation-prerender": speculation("prerender"),
    "ping": "<a ping='{u}' href='#'>x</a><script>document.currentScript.previousSibling.click()</script>",
    **{name: f"<script>{text}</script>" for name, text in {
        "fetch": "fetch('{u}')",
        "fetch-head": "fetch('{u}',{mode:'no-cors',method:'HEAD'})",
        "fetch-put": "fetch('{u}',{method:'PUT',body:'x'})",
        "fetch-post": "fetch('{u}',{mode:'no-cors',method:'POST',body:'CanDetectTimeout=evil&allocation=allocate'})",
        "beacon-empty": "navigator.sendBeacon('{u}')",
        "websocket": "new WebSocket('{u}'.replace('http','ws'))",
    }.items()},
}
# What loopback is enough for: by http to other addresses the browser sends it nowhere.
UNSENT_BY_HTTP = {"speculation-prefetch"}

# Pages of their own.
DOCUMENTS = {
    "location": "<script>location='{u}'</script>",
    "location-no-referrer": NO_REFERRER + "<script>location='{u}'</script>",
    "form-post": form("", CanDetectTimeout="evil", allocation="allocate"),
    "form-text": FORM_OF_TEXT,
    "form-text-no-referrer": NO_REFERRER + FORM_OF_TEXT,
}
# Answers of the foreign server, as a page; redirects as a picture, too.
ANSWERS = {
    "redirect": (302, "Location", "{u}"),
    "redirect-by-method": (307, "Location", "{u}"),
    "refresh-header": (200, "Refresh", "0;url={u}"),
    "link-header": (200, "Link", "<{u}>; rel=preload; as=image"),
    "csp-report": (200, "Content-Security-Policy", "img-src 'none'; report-uri {u}"),
}


# --- What the page is made to echo: it asks the device itself for a change, or a foreign server. One or two ways for
# each line of the policy

MARKUP = {
    **{name: PARTS[name] for name in (
        "img", "stylesheet", "script", "video", "embed", "object", "iframe", "prefetch", "css-background",
        "speculation-prerender")},
    "preload-fetch": "<link rel=preload as=fetch crossorigin href='{u}'>",
    "meta-refresh": "<meta http-equiv=refresh content='0;url={u}'>",
    "meta-csp": "<meta http-equiv=Content-Security-Policy content=\"default-src *\"><img src='{u}'>",
    "iframe-srcdoc": f"<iframe srcdoc=\"<img src='{{u}}'><script>parent.{HARM}</script>\"></iframe>",
    "iframe-javascript": f'<iframe src="javascript:parent.{HARM}"></iframe>',
    "script-inline": f"<script>{HARM}</script>",
    "img-onerror": f"<img src='/images/nowhere.gif' onerror=\"{HARM}\">",
    "base": "<base href='{u}'><img src='x.gif'>",
}
# Only where they are echoed: a folder that leads on, which web servers decode; and what shows without scripts.
ECHOED = {
    "img-encoded-folder": "<img src='/images/..%2fsetobdconf.cgi?CanDetectTimeout=evil'>",
    "style-encoded-folder": "<link rel=stylesheet href='/css/..%2fsetobdconf.cgi?CanDetectTimeout=evil'>",
    "noscript": "<noscript><img src='{u}'></noscript>",
}
