package com.tarn.vemo.config;

/** Static methods of every kind that the bridge can call. */
public final class ConfigVemo {
    private static int calls;

    public static String getLanIp4AddressS() {
        return "192.0.2.7";
    }

    public static String getWlanIp4AddressS() {
        return "198.51.100.9";
    }

    public static String getText() {
        return "a text";
    }

    public static String getEmptyText() {
        return "";
    }

    /** Two, three and twice three bytes in modified UTF-8. */
    public static String getTextBeyondLatin1() {
        return "\u00e9\u20ac\ud83d\ude97";
    }

    /** A zero character is two bytes, neither of them zero, in modified UTF-8. */
    public static String getTextWithZero() {
        return "a\0b";
    }

    public static String getCountedText() {
        return "call " + ++calls;
    }

    public static int getNumber() {
        return 42;
    }

    public static int getLeastNumber() {
        return Integer.MIN_VALUE;
    }

    public static int getThrowing() {
        throw new IllegalStateException("no number today");
    }

    public static String getNullText() {
        return null;
    }

    /** The thread outlives the call and reports its end on System.err. */
    public static int startThread() {
        new Thread(ConfigVemo::sleepAndReport).start();
        return 1;
    }

    private static void sleepAndReport() {
        try {
            Thread.sleep(500);
        } catch (InterruptedException e) {
            return;
        }
        System.err.println("the thread ends");
    }
}
