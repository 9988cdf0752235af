package com.tarn.vemo.config;

import java.io.*;
import java.math.BigInteger;
import java.nio.charset.Charset;
import java.security.MessageDigest;
import java.security.spec.AlgorithmParameterSpec;
import java.util.*;
import java.util.function.DoubleUnaryOperator;
import java.util.stream.*;
import java.util.zip.*;
import javax.crypto.Cipher;
import javax.crypto.spec.*;
import javax.net.ssl.SSLContext;

/** Computes what a Java VM may do by the processor's own means, and reports the results one by one. */
public final class ConfigVemo {
    private static final int[] LENGTHS = {0, 1, 7, 8, 15, 16, 31, 64, 100, 255, 1024, 5000};
    private static final SecretKeySpec KEY = new SecretKeySpec(bytes(16), "AES");
    private static final List<DoubleUnaryOperator> FUNCTIONS = List.of(
            Math::sqrt, Math::rint, Math::floor, Math::ceil, Math::abs, Math::sin, Math::cos, Math::tan, Math::exp,
            Math::cbrt, StrictMath::sin, number -> StrictMath.pow(Math.abs(number), 1.7),
            number -> Math.fma(number, number, 1.0 / 3), number -> (float) number * 3.0f + (int) number,
            number -> number % 0.7 + Math.IEEEremainder(number, 0.7), number -> Math.log(Math.abs(number)),
            number -> Math.log10(Math.abs(number)), number -> Math.pow(Math.abs(number), 1.7),
            number -> Math.atan2(number, 0.3));

    private interface OfBytes {
        byte[] of(byte[] data) throws Exception;
    }

    static {
        try {
            reportTexts();
            reportBytes();
            reportCiphers();
            reportNumbers();
        } catch (Exception e) {
            throw new ExceptionInInitializerError(e);
        }
    }

    private static void report(String what, Object... results) {
        System.err.println("result " + what + " " + Arrays.toString(results));
    }

    private static byte[] bytes(int length) {
        byte[] data = new byte[length];
        new Random(length).nextBytes(data);
        return data;
    }

    /** Reports a hash of the outcomes for data of all lengths. */
    private static void reportAll(String what, OfBytes operation) throws Exception {
        int sum = 1;
        for (int length : LENGTHS) {
            sum = 31 * sum + Arrays.hashCode(operation.of(bytes(length)));
        }
        report(what, sum);
    }

    private static void requireEqual(byte[] data, byte[] other) {
        if (!Arrays.equals(data, other)) {
            throw new IllegalStateException("not the data that went in");
        }
    }

    private static void reportTexts() throws Exception {
        StringBuilder text = new StringBuilder();
        for (int i = 0; i < 3000; ++i) {
            text.append((char) ('!' + i * 7 % 90)).append(i % 50 == 0 ? "\u00e4\u20ac" : "");
        }
        String all = text.toString();
        for (String name : List.of("UTF-8", "ISO-8859-1", "UTF-16")) {
            byte[] encoded = all.getBytes(Charset.forName(name));
            report("text " + name, Arrays.hashCode(encoded), new String(encoded, name).hashCode());
        }
        report("text changed", all.hashCode(), all.toLowerCase(Locale.ROOT).hashCode(),
                all.toUpperCase(Locale.ROOT).hashCode(), all.replace('a', 'b').hashCode());
        report("text search", all.indexOf("\u20ac"), all.lastIndexOf("zz"), all.indexOf("!(/6"),
                all.compareTo(all.substring(1)), all.split("[()]").length);
        report("text array", Arrays.mismatch(all.toCharArray(), (all.substring(0, 2000) + "x").toCharArray()),
                Arrays.equals(all.toCharArray(), all.toCharArray()));
        report("text number", String.format(Locale.ROOT, "%.9f %e %d %x", Math.PI, 1e-30 / 3, Long.MIN_VALUE, -1),
                Double.parseDouble("3.141592653589793"), Float.parseFloat("1e-45"), Long.parseLong("-99"));
    }

    private static void reportBytes() throws Exception {
        for (String name : List.of("MD5", "SHA-1", "SHA-224", "SHA-256", "SHA-384", "SHA-512", "SHA3-256")) {
            MessageDigest hash = MessageDigest.getInstance(name);
            report(name + " of abc", new BigInteger(1, hash.digest("abc".getBytes("US-ASCII"))).toString(16));
            reportAll(name, hash::digest);
        }
        for (Checksum checksum : List.of(new CRC32(), new CRC32C(), new Adler32())) {
            reportAll(checksum.getClass().getSimpleName(), data -> {
                checksum.reset();
                checksum.update(data, 0, data.length);
                return BigInteger.valueOf(checksum.getValue()).toByteArray();
            });
        }
        reportAll("Base64", Base64.getEncoder()::encode);
        reportAll("Base64 back", data -> Base64.getDecoder().decode(Base64.getEncoder().encode(data)));
        reportAll("gzip", data -> {
            ByteArrayOutputStream packed = new ByteArrayOutputStream();
            try (OutputStream out = new GZIPOutputStream(packed)) {
                out.write(data);
            }
            InputStream in = new GZIPInputStream(new ByteArrayInputStream(packed.toByteArray()));
            requireEqual(data, in.readAllBytes());
            return packed.toByteArray();
        });
    }

    private static void reportCiphers() throws Exception {
        reportCipher("AES/ECB/PKCS5Padding", null);
        reportCipher("AES/CBC/PKCS5Padding", new IvParameterSpec(bytes(16)));
        reportCipher("AES/CTR/NoPadding", new IvParameterSpec(bytes(16)));
        reportCipher("AES/GCM/NoPadding", new GCMParameterSpec(128, bytes(12)));
        report("TLS", (Object[]) SSLContext.getDefault().getDefaultSSLParameters().getProtocols());
    }

    private static void reportCipher(String name, AlgorithmParameterSpec parameters) throws Exception {
        reportAll(name, data -> {
            Cipher cipher = Cipher.getInstance(name);
            cipher.init(Cipher.ENCRYPT_MODE, KEY, parameters);
            byte[] secret = cipher.doFinal(data);
            cipher.init(Cipher.DECRYPT_MODE, KEY, parameters);
            requireEqual(data, cipher.doFinal(secret));
            return secret;
        });
    }

    private static void reportNumbers() {
        for (int bits : new int[] {64, 500, 1024, 2048, 6000}) {
            BigInteger a = new BigInteger(bits, new Random(1)).setBit(0);
            BigInteger b = new BigInteger(bits, new Random(2));
            report("BigInteger of " + bits + " bits", a.multiply(b).hashCode(), a.multiply(a).hashCode(),
                    b.pow(3).hashCode(), a.multiply(b).divide(a).equals(b),
                    b.modPow(BigInteger.valueOf(65537), a).hashCode(), a.toString().hashCode());
        }
        report("int", Long.bitCount(0x123456789abcdefL), Long.numberOfLeadingZeros(99), Integer.reverseBytes(0x1020304),
                Integer.numberOfTrailingZeros(96), Math.multiplyHigh(Long.MAX_VALUE, 12345), Math.floorMod(-7, 3));
        Random random = new Random(3);
        double[] numbers = DoubleStream.concat(
                DoubleStream.of(-0.0, Double.NaN, Double.POSITIVE_INFINITY, Double.MIN_VALUE, Double.MAX_VALUE),
                IntStream.range(-1000, 1000).mapToDouble(
                        i -> i % 7 == 0 ? i : random.nextGaussian() * Math.scalb(1.0, i % 20))).toArray();
        for (DoubleUnaryOperator function : FUNCTIONS) {
            report("function", DoubleStream.of(numbers).map(function).mapToLong(Double::doubleToLongBits)
                    .reduce(1, (sum, bits) -> 31 * sum + bits));
        }
    }
}
