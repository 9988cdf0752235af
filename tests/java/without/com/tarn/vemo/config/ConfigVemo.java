package com.tarn.vemo.config;

/** Has none of the methods that the bridge calls by name. */
public final class ConfigVemo {
    public String getText() {
        return "an instance's";
    }
}
