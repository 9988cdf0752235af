package com.tarn.vemo.config;

/** Reports on System.err that it is initialised, and there and on System.out that its Java VM ends. */
public final class ConfigVemo {
    static {
        String greeting = System.getProperty("vemo.greeting");
        System.err.println("initialised, greeting " + greeting);
        Runtime.getRuntime().addShutdownHook(new End());
        if ("failure".equals(greeting)) {
            throw new IllegalStateException("no configuration today");
        }
    }

    /** Not a lambda: no code of a class that failed can run. */
    private static final class End extends Thread {
        @Override
        public void run() {
            System.err.println("the Java VM ends");
            System.out.println("the Java VM ends");
        }
    }
}
