package com.tarn.vemo.config;

/** Reports on System.err that it is initialised, and on System.err and System.out that its Java VM ends. */
public final class ConfigVemo {
    static {
        System.err.println("initialised, greeting " + System.getProperty("vemo.greeting"));
        Runtime.getRuntime().addShutdownHook(new Thread(ConfigVemo::reportTheEnd));
    }

    private ConfigVemo() {
    }

    private static void reportTheEnd() {
        System.err.println("the Java VM ends");
        System.out.println("the Java VM ends");
    }
}
