#!/bin/sh
# "Reboot": asks first; the posted form is the answer. This stand-in for the device reboots nothing.

# The web server hands no PATH to its programs.
PATH=/usr/bin:/bin
export PATH

if [ "${REQUEST_METHOD:-}" = POST ]; then
    content='<p class="warn">This stand-in for the device cannot reboot: nothing was restarted.</p>
<form action="channeldeviceconfig.cgi"><input type="submit" value="Back" class="mybutton"></form>'
else
    content='<p>Reboot the device to activate new settings? Diagnostic sessions in progress are lost.</p>
<form action="reboot.cgi" method="post"><input type="submit" value="Reboot" class="mybutton"></form>'
fi

cat <<EOF
Content-Type: text/html;charset=iso-8859-1

<!DOCTYPE html>
<html lang="en">
<head>
<meta http-equiv="content-type" content="text/html;charset=iso-8859-1">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>VEMO Web Server - Reboot</title>
<link href="/css/all.css" rel="stylesheet" media="screen">
</head>
<body>
<p><img src="/images/kesta.jpg" alt="KESTA AG" align="left"><img src="/images/tarn.gif" alt="TARN BELOX" align="right"></p>
<div class="navi"><a class="small" href="/index.html">Home</a> / <a class="small" href="channeldeviceconfig.cgi">Device Information</a> / <a class="small" href="reboot.cgi">Reboot</a></div>
<h2>Reboot</h2>
<div class="content">
$content
</div>
</body>
</html>
EOF
