package com.tarn.vemo.config;

import java.io.File;

/** Is not initialised before /tmp/let-go exists. */
public final class ConfigVemo {
    static {
        while (!new File("/tmp/let-go").exists()) {
            try {
                Thread.sleep(1);
            } catch (InterruptedException e) {
                break;
            }
        }
    }

    private ConfigVemo() {}

    public static String getLanIp4AddressS() {
        return "";
    }

    public static String getWlanIp4AddressS() {
        return "";
    }
}
