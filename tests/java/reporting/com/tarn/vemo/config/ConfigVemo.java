package com.tarn.vemo.config;

/** Tells on System.err when it is initialised and when its Java VM ends; the latter on System.out too. */
public final class ConfigVemo {

    static {
        System.err.println("initialised, greeting " + System.getProperty("vemo.greeting"));
        Runtime.getRuntime().addShutdownHook(new Thread(ConfigVemo::tellTheEnd));
    }

    private ConfigVemo() {
    }

    private static void tellTheEnd() {
        System.err.println("the Java VM ends");
        System.out.println("the Java VM ends");
    }
}
