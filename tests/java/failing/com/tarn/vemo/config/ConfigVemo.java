package com.tarn.vemo.config;

/** Cannot be initialised. Reports on System.err that its Java VM ends. */
public final class ConfigVemo {

    static {
        Runtime.getRuntime().addShutdownHook(new End());
        fail();
    }

    private ConfigVemo() {
    }

    private static void fail() {
        throw new IllegalStateException("no configuration today");
    }

    /** Not a lambda: no code of a class that failed can run. */
    private static final class End extends Thread {
        @Override
        public void run() {
            System.err.println("the Java VM ends");
        }
    }
}
