#!/bin/sh
# What somebody would write instead: a CGI script that starts the java launcher.
exec java -cp /build/bench/launcher SetOption
