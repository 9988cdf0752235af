#!/bin/sh
# "Device Information": shows the stored CAN detection timeout and the form that changes it.

# The web server hands no PATH to its programs. Bytes are bytes: the pages are ISO-8859-1.
PATH=/usr/bin:/bin
LC_ALL=C
export PATH LC_ALL

settings=/app/tarn-belox/runvex/obd.conf

# Prints the value of VEMODCanDetectTimeout in section SETTINGS; without its quotes when it has some.
stored_timeout() {
    awk '
        /^[ \t]*\[/ { in_settings = /^[ \t]*\[[ \t]*SETTINGS[ \t]*\][ \t\r]*$/; next }
        in_settings && sub(/^[ \t]*VEMODCanDetectTimeout[ \t]*=[ \t]*/, "") {
            sub(/[ \t\r]+$/, "")
            print /^".*"$/ ? unquoted(substr($0, 2, length($0) - 2)) : $0
            exit
        }
        # A line end or NUL is shown as a blank: the form field has one line.
        function unquoted(text,    plain, at, escaped) {
            while (at = index(text, "\\")) {
                escaped = substr(text, at + 1, 1)
                plain = plain substr(text, 1, at - 1) (escaped ~ /[nr0]/ ? " " : escaped)
                text = substr(text, at + 2)
            }
            return plain text
        }' "$settings"
}

escape_html() {
    sed -e 's/&/\&amp;/g' -e 's/</\&lt;/g' -e 's/>/\&gt;/g' -e 's/"/\&quot;/g' -e "s/'/\&#39;/g"
}

timeout=$(stored_timeout | escape_html)
shown=${timeout:+$timeout ms}

cat <<EOF
Content-Type: text/html;charset=iso-8859-1

<!DOCTYPE html>
<html lang="en">
<head>
<meta http-equiv="content-type" content="text/html;charset=iso-8859-1">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>VEMO Web Server - Device Information</title>
<link href="/css/all.css" rel="stylesheet" media="screen">
</head>
<body>
<p><img src="/images/kesta.jpg" alt="KESTA AG" align="left"><img src="/images/tarn.gif" alt="TARN BELOX" align="right"></p>
<div class="navi"><a class="small" href="/index.html">Home</a> / <a class="small" href="channeldeviceconfig.cgi">Device Information</a></div>
<h2>Device Information</h2>
<div class="content">
<dl>
<dt>VEMODCanDetectTimeout</dt>
<dd>${shown:-not set}</dd>
</dl>
<form action="setobdconf.cgi" method="post">
<p><label for="timeout">CanDetectTimeout</label>
<input type="text" id="timeout" name="CanDetectTimeout" value="$timeout" inputmode="numeric" autocomplete="off"> ms</p>
<input type="submit" value="Set" class="mybutton">
</form>
</div>
</body>
</html>
EOF
