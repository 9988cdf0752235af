package com.tarn.vemo.config;

import java.io.ByteArrayInputStream;
import java.io.ByteArrayOutputStream;
import java.io.InputStream;
import java.io.OutputStream;
import java.math.BigInteger;
import java.nio.charset.StandardCharsets;
import java.security.MessageDigest;
import java.security.spec.AlgorithmParameterSpec;
import java.util.Arrays;
import java.util.Base64;
import java.util.Locale;
import java.util.Random;
import java.util.function.DoubleUnaryOperator;
import java.util.zip.*;
import javax.crypto.Cipher;
import javax.crypto.Mac;
import javax.crypto.spec.*;
import javax.net.ssl.SSLContext;

/** Computes what a Java VM may do by the processor's own means, and reports the results one by one. */
public final class ConfigVemo {
    private static final int[] LENGTHS = {0, 1, 7, 8, 15, 16, 31, 64, 100, 255, 1024, 5000};

    private interface OfBytes {
        byte[] of(byte[] data) throws Exception;
    }

    static {
        try {
            reportEverything();
        } catch (Exception e) {
            throw new ExceptionInInitializerError(e);
        }
    }

    private ConfigVemo() {
    }

    private static void report(String what, Object result) {
        System.err.println("result " + what + " " + result);
    }

    private static byte[] bytes(int length) {
        byte[] data = new byte[length];
        new Random(length).nextBytes(data);
        return data;
    }

    private static String hex(byte[] data) {
        StringBuilder text = new StringBuilder();
        for (byte one : data) {
            text.append(String.format("%02x", one));
        }
        return text.toString();
    }

    /** Reports a hash of the outcomes for data of all lengths. */
    private static void reportAll(String what, OfBytes operation) throws Exception {
        int sum = 1;
        for (int length : LENGTHS) {
            sum = 31 * sum + Arrays.hashCode(operation.of(bytes(length)));
        }
        report(what, Integer.toHexString(sum));
    }

    private static void require(boolean isTrue, String what) {
        if (!isTrue) {
            throw new IllegalStateException(what);
        }
    }

    private static void reportEverything() throws Exception {
        reportTexts();
        for (String name : new String[] {"MD5", "SHA-1", "SHA-224", "SHA-256", "SHA-384", "SHA-512", "SHA3-256"}) {
            report(name + " of abc", hex(MessageDigest.getInstance(name).digest("abc".getBytes(StandardCharsets.US_ASCII))));
            reportAll(name, data -> MessageDigest.getInstance(name).digest(data));
        }
        reportAll("Base64", data -> {
            byte[] encoded = Base64.getEncoder().encode(data);
            require(Arrays.equals(Base64.getDecoder().decode(encoded), data), "Base64");
            return encoded;
        });
        reportAll("Base64 MIME", data -> Base64.getMimeEncoder().encode(data));
        reportChecksum(new CRC32());
        reportChecksum(new CRC32C());
        reportChecksum(new Adler32());
        reportPacking();
        reportCiphers();
        report("TLS", Arrays.toString(SSLContext.getDefault().getDefaultSSLParameters().getProtocols()));
        reportIntegers();
        reportNumbersResults();
    }

    private static void reportTexts() {
        StringBuilder text = new StringBuilder();
        for (int i = 0; i < 3000; ++i) {
            text.append((char) ('!' + i * 7 % 90)).append(i % 50 == 0 ? "\u00e4\u20ac" : "");
        }
        String all = text.toString();
        report("text UTF-8", Arrays.hashCode(all.getBytes(StandardCharsets.UTF_8)));
        report("text ISO-8859-1", Arrays.hashCode(all.getBytes(StandardCharsets.ISO_8859_1)));
        report("text UTF-16", Arrays.hashCode(all.getBytes(StandardCharsets.UTF_16)));
        report("text back", new String(all.getBytes(StandardCharsets.UTF_8), StandardCharsets.UTF_8).equals(all));
        report("text hash", all.hashCode() + " " + all.toLowerCase(Locale.ROOT).hashCode() + " "
                + all.toUpperCase(Locale.ROOT).hashCode() + " " + all.replace('a', 'b').hashCode());
        report("text search", all.indexOf("\u20ac") + " " + all.lastIndexOf("zz") + " " + all.indexOf("!(/6")
                + " " + all.compareTo(all.substring(1)) + " " + all.split("[()]").length);
        report("text array", Arrays.mismatch(all.toCharArray(), (all.substring(0, 2000) + "x").toCharArray())
                + " " + Arrays.equals(all.toCharArray(), all.toCharArray()));
        report("text number", String.format(Locale.ROOT, "%.9f %e %d %x", Math.PI, 1e-30 / 3, Long.MIN_VALUE, -1)
                + Double.parseDouble("3.141592653589793") + Float.parseFloat("1e-45") + Long.parseLong("-99"));
    }

    private static void reportChecksum(Checksum checksum) throws Exception {
        reportAll(checksum.getClass().getSimpleName(), data -> {
            checksum.reset();
            checksum.update(data, 0, data.length);
            return Long.toString(checksum.getValue()).getBytes(StandardCharsets.US_ASCII);
        });
    }

    private static void reportPacking() throws Exception {
        reportAll("gzip", data -> {
            ByteArrayOutputStream packed = new ByteArrayOutputStream();
            write(new GZIPOutputStream(packed), data);
            requireContent(new GZIPInputStream(new ByteArrayInputStream(packed.toByteArray())), data);
            return packed.toByteArray();
        });
        reportAll("zip", data -> {
            ByteArrayOutputStream packed = new ByteArrayOutputStream();
            ZipOutputStream out = new ZipOutputStream(packed);
            ZipEntry entry = new ZipEntry("entry");
            entry.setTime(0);
            out.putNextEntry(entry);
            write(out, data);
            ZipInputStream in = new ZipInputStream(new ByteArrayInputStream(packed.toByteArray()));
            require("entry".equals(in.getNextEntry().getName()), "zip entry");
            requireContent(in, data);
            return packed.toByteArray();
        });
    }

    private static void write(OutputStream out, byte[] data) throws Exception {
        out.write(data);
        out.close();
    }

    private static void requireContent(InputStream in, byte[] data) throws Exception {
        require(Arrays.equals(in.readAllBytes(), data), "unpacked");
    }

    private static void reportCiphers() throws Exception {
        SecretKeySpec key = new SecretKeySpec(bytes(16), "AES");
        reportCipher("AES/ECB/PKCS5Padding", key, null);
        reportCipher("AES/CBC/PKCS5Padding", key, new IvParameterSpec(bytes(16)));
        reportCipher("AES/CTR/NoPadding", key, new IvParameterSpec(bytes(16)));
        reportCipher("AES/GCM/NoPadding", key, new GCMParameterSpec(128, bytes(12)));
        reportAll("HmacSHA256", data -> {
            Mac mac = Mac.getInstance("HmacSHA256");
            mac.init(key);
            return mac.doFinal(data);
        });
    }

    private static void reportCipher(String name, SecretKeySpec key, AlgorithmParameterSpec parameters)
            throws Exception {
        reportAll(name, data -> {
            Cipher cipher = Cipher.getInstance(name);
            cipher.init(Cipher.ENCRYPT_MODE, key, parameters);
            byte[] secret = cipher.doFinal(data);
            cipher.init(Cipher.DECRYPT_MODE, key, parameters);
            require(Arrays.equals(cipher.doFinal(secret), data), name);
            return secret;
        });
    }

    private static void reportIntegers() {
        for (int bits : new int[] {64, 500, 1024, 2048, 6000}) {
            BigInteger a = new BigInteger(bits, new Random(1)).setBit(0);
            BigInteger b = new BigInteger(bits, new Random(2));
            report("BigInteger of " + bits + " bits", a.multiply(b).hashCode() + " " + a.multiply(a).hashCode() + " "
                    + b.pow(3).hashCode() + " " + a.multiply(b).divide(a).equals(b) + " "
                    + b.modPow(BigInteger.valueOf(65537), a).hashCode() + " " + a.toString().hashCode());
        }
        report("int", Long.bitCount(0x123456789abcdefL) + " " + Long.numberOfLeadingZeros(99) + " "
                + Integer.numberOfTrailingZeros(96) + " " + Integer.reverseBytes(0x1020304) + " "
                + Math.multiplyHigh(Long.MAX_VALUE, 12345) + " " + Math.floorMod(-7, 3));
    }

    private static void reportNumbersResults() {
        reportNumbers("sqrt", Math::sqrt);
        reportNumbers("rint", Math::rint);
        reportNumbers("floor", Math::floor);
        reportNumbers("ceil", Math::ceil);
        reportNumbers("abs", Math::abs);
        reportNumbers("fma", number -> Math.fma(number, number, 1.0 / 3));
        reportNumbers("float", number -> (float) number * 3.0f + (int) number);
        reportNumbers("remainder", number -> number % 0.7 + Math.IEEEremainder(number, 0.7));
        reportNumbers("strict sin", StrictMath::sin);
        reportNumbers("strict pow", number -> StrictMath.pow(Math.abs(number), 1.7));
        reportNumbers("sin", Math::sin);
        reportNumbers("cos", Math::cos);
        reportNumbers("tan", Math::tan);
        reportNumbers("exp", Math::exp);
        reportNumbers("log", number -> Math.log(Math.abs(number)));
        reportNumbers("log10", number -> Math.log10(Math.abs(number)));
        reportNumbers("pow", number -> Math.pow(Math.abs(number), 1.7));
        reportNumbers("cbrt", Math::cbrt);
        reportNumbers("atan2", number -> Math.atan2(number, 0.3));
    }

    private static void reportNumbers(String what, DoubleUnaryOperator operation) {
        Random random = new Random(3);
        long sum = 1;
        for (int i = 0; i < 2000; ++i) {
            double number = i < 50 ? i - 25 : random.nextGaussian() * Math.scalb(1.0, i % 40 - 20);
            sum = 31 * sum + Double.doubleToLongBits(operation.applyAsDouble(number));
        }
        for (double number : new double[] {0.0, -0.0, Double.NaN, Double.POSITIVE_INFINITY, Double.MIN_VALUE, Double.MAX_VALUE}) {
            sum = 31 * sum + Double.doubleToLongBits(operation.applyAsDouble(number));
        }
        report("Math " + what, Long.toHexString(sum));
    }
}
