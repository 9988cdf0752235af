package com.tarn.vemo.config;

import java.util.concurrent.Semaphore;

/** Never gets initialised. */
public final class ConfigVemo {
    static {
        new Semaphore(0).acquireUninterruptibly();
    }
}
