package com.tarn.vemo.config;

import java.io.IOException;
import java.io.InputStream;
import java.util.Map;
import java.util.Properties;
import java.util.TreeMap;

/** Does in its static initialiser what a configuration class does: reads some hundred properties. */
public final class ConfigVemo {
    private static final Map<String, Integer> NUMBERS = new TreeMap<>();
    private static final Map<String, String> TEXTS = new TreeMap<>();

    static {
        Properties properties = new Properties();
        try (InputStream in = ConfigVemo.class.getResourceAsStream("/vemo.properties")) {
            properties.load(in);
        } catch (IOException e) {
            throw new ExceptionInInitializerError(e);
        }
        for (String name : properties.stringPropertyNames()) {
            String value = properties.getProperty(name).trim();
            try {
                NUMBERS.put(name, Integer.valueOf(value));
            } catch (NumberFormatException e) {
                TEXTS.put(name, value.toLowerCase());
            }
        }
    }
}
