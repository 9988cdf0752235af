package com.tarn.vemo.config;

import java.io.ByteArrayInputStream;
import java.io.ByteArrayOutputStream;
import java.math.BigInteger;
import java.nio.charset.StandardCharsets;
import java.security.MessageDigest;
import java.util.Arrays;
import java.util.Base64;
import java.util.Locale;
import java.util.Random;
import java.util.zip.Adler32;
import java.util.zip.CRC32;
import java.util.zip.CRC32C;
import java.util.zip.Checksum;
import java.util.zip.GZIPInputStream;
import java.util.zip.GZIPOutputStream;
import java.util.zip.ZipEntry;
import java.util.zip.ZipInputStream;
import java.util.zip.ZipOutputStream;
import javax.crypto.Cipher;
import javax.crypto.Mac;
import javax.crypto.spec.GCMParameterSpec;
import javax.crypto.spec.IvParameterSpec;
import javax.crypto.spec.SecretKeySpec;
import javax.net.ssl.SSLContext;

/** Computes what a Java VM may do by the processor's own means, and tells the results one by one. */
public final class ConfigVemo {
    private static final int[] LENGTHS = {0, 1, 7, 8, 15, 16, 31, 64, 100, 255, 1024, 5000};

    private interface OfBytes {
        byte[] of(byte[] data) throws Exception;
    }

    private interface OfNumber {
        double of(double number);
    }

    static {
        try {
            tellAll();
        } catch (Exception e) {
            throw new ExceptionInInitializerError(e);
        }
    }

    private ConfigVemo() {
    }

    private static void tell(String what, Object result) {
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

    /** Tells of the outcomes for data of all lengths, in short. */
    private static void tellOfAll(String what, OfBytes operation) throws Exception {
        int sum = 1;
        for (int length : LENGTHS) {
            sum = 31 * sum + Arrays.hashCode(operation.of(bytes(length)));
        }
        tell(what, Integer.toHexString(sum));
    }

    private static void require(boolean isTrue, String what) {
        if (!isTrue) {
            throw new IllegalStateException(what);
        }
    }

    private static void tellAll() throws Exception {
        tellTexts();
        for (String name : new String[] {"MD5", "SHA-1", "SHA-224", "SHA-256", "SHA-384", "SHA-512", "SHA3-256"}) {
            tell(name + " of abc", hex(MessageDigest.getInstance(name).digest("abc".getBytes(StandardCharsets.US_ASCII))));
            tellOfAll(name, data -> MessageDigest.getInstance(name).digest(data));
        }
        tellOfAll("Base64", data -> {
            byte[] encoded = Base64.getEncoder().encode(data);
            require(Arrays.equals(Base64.getDecoder().decode(encoded), data), "Base64");
            return encoded;
        });
        tellOfAll("Base64 MIME", data -> Base64.getMimeEncoder().encode(data));
        tellChecksum(new CRC32());
        tellChecksum(new CRC32C());
        tellChecksum(new Adler32());
        tellPacking();
        tellCiphers();
        tell("TLS", Arrays.toString(SSLContext.getDefault().getDefaultSSLParameters().getProtocols()));
        tellIntegers();
        tellNumbers();
    }

    private static void tellTexts() {
        StringBuilder text = new StringBuilder();
        for (int i = 0; i < 3000; ++i) {
            text.append((char) ('!' + i * 7 % 90)).append(i % 50 == 0 ? "\u00e4\u20ac" : "");
        }
        String all = text.toString();
        tell("text UTF-8", Arrays.hashCode(all.getBytes(StandardCharsets.UTF_8)));
        tell("text ISO-8859-1", Arrays.hashCode(all.getBytes(StandardCharsets.ISO_8859_1)));
        tell("text UTF-16", Arrays.hashCode(all.getBytes(StandardCharsets.UTF_16)));
        tell("text back", new String(all.getBytes(StandardCharsets.UTF_8), StandardCharsets.UTF_8).equals(all));
        tell("text hash", all.hashCode() + " " + all.toLowerCase(Locale.ROOT).hashCode() + " "
                + all.toUpperCase(Locale.ROOT).hashCode() + " " + all.replace('a', 'b').hashCode());
        tell("text search", all.indexOf("\u20ac") + " " + all.lastIndexOf("zz") + " " + all.indexOf("!(/6")
                + " " + all.compareTo(all.substring(1)) + " " + all.split("[()]").length);
        tell("text array", Arrays.mismatch(all.toCharArray(), (all.substring(0, 2000) + "x").toCharArray())
                + " " + Arrays.equals(all.toCharArray(), all.toCharArray()));
        tell("text number", String.format(Locale.ROOT, "%.9f %e %d %x", Math.PI, 1e-30 / 3, Long.MIN_VALUE, -1)
                + Double.parseDouble("3.141592653589793") + Float.parseFloat("1e-45") + Long.parseLong("-99"));
    }

    private static void tellChecksum(Checksum checksum) throws Exception {
        tellOfAll(checksum.getClass().getSimpleName(), data -> {
            checksum.reset();
            checksum.update(data, 0, data.length);
            return Long.toString(checksum.getValue()).getBytes(StandardCharsets.US_ASCII);
        });
    }

    private static void tellPacking() throws Exception {
        tellOfAll("gzip", data -> {
            ByteArrayOutputStream packed = new ByteArrayOutputStream();
            try (GZIPOutputStream out = new GZIPOutputStream(packed)) {
                out.write(data);
            }
            byte[] result = packed.toByteArray();
            require(Arrays.equals(new GZIPInputStream(new ByteArrayInputStream(result)).readAllBytes(), data), "gzip");
            return result;
        });
        tellOfAll("zip", data -> {
            ByteArrayOutputStream packed = new ByteArrayOutputStream();
            try (ZipOutputStream out = new ZipOutputStream(packed)) {
                ZipEntry entry = new ZipEntry("entry");
                entry.setTime(0);
                out.putNextEntry(entry);
                out.write(data);
            }
            byte[] result = packed.toByteArray();
            try (ZipInputStream in = new ZipInputStream(new ByteArrayInputStream(result))) {
                require("entry".equals(in.getNextEntry().getName()), "zip entry");
                require(Arrays.equals(in.readAllBytes(), data), "zip");
            }
            return result;
        });
    }

    private static void tellCiphers() throws Exception {
        SecretKeySpec key = new SecretKeySpec(bytes(16), "AES");
        for (String name : new String[] {"AES/ECB/PKCS5Padding", "AES/CBC/PKCS5Padding", "AES/CTR/NoPadding", "AES/GCM/NoPadding"}) {
            tellOfAll(name, data -> {
                Cipher cipher = Cipher.getInstance(name);
                for (int mode : new int[] {Cipher.ENCRYPT_MODE, Cipher.DECRYPT_MODE}) {
                    if (name.contains("ECB")) {
                        cipher.init(mode, key);
                    } else if (name.contains("GCM")) {
                        cipher.init(mode, key, new GCMParameterSpec(128, bytes(12)));
                    } else {
                        cipher.init(mode, key, new IvParameterSpec(bytes(16)));
                    }
                    if (mode == Cipher.DECRYPT_MODE) {
                        break;
                    }
                    byte[] secret = cipher.doFinal(data);
                    cipher = Cipher.getInstance(name);
                    data = Arrays.copyOf(secret, secret.length);
                }
                byte[] plain = cipher.doFinal(data);
                require(plain.length <= data.length, name);
                byte[] both = Arrays.copyOf(data, data.length + plain.length);
                System.arraycopy(plain, 0, both, data.length, plain.length);
                return both;
            });
        }
        tellOfAll("HmacSHA256", data -> {
            Mac mac = Mac.getInstance("HmacSHA256");
            mac.init(key);
            return mac.doFinal(data);
        });
    }

    private static void tellIntegers() {
        for (int bits : new int[] {64, 500, 1024, 2048, 6000}) {
            BigInteger a = new BigInteger(bits, new Random(1)).setBit(0);
            BigInteger b = new BigInteger(bits, new Random(2));
            tell("BigInteger of " + bits + " bits", a.multiply(b).hashCode() + " " + a.multiply(a).hashCode() + " "
                    + b.pow(3).hashCode() + " " + a.multiply(b).divide(a).equals(b) + " "
                    + b.modPow(BigInteger.valueOf(65537), a).hashCode() + " " + a.toString().hashCode());
        }
        tell("int", Long.bitCount(0x123456789abcdefL) + " " + Long.numberOfLeadingZeros(99) + " "
                + Integer.numberOfTrailingZeros(96) + " " + Integer.reverseBytes(0x1020304) + " "
                + Math.multiplyHigh(Long.MAX_VALUE, 12345) + " " + Math.floorMod(-7, 3));
    }

    private static void tellNumbers() {
        tellOfNumbers("sqrt", Math::sqrt);
        tellOfNumbers("rint", Math::rint);
        tellOfNumbers("floor", Math::floor);
        tellOfNumbers("ceil", Math::ceil);
        tellOfNumbers("abs", Math::abs);
        tellOfNumbers("fma", number -> Math.fma(number, number, 1.0 / 3));
        tellOfNumbers("float", number -> (float) number * 3.0f + (int) number);
        tellOfNumbers("remainder", number -> number % 0.7 + Math.IEEEremainder(number, 0.7));
        tellOfNumbers("strict sin", StrictMath::sin);
        tellOfNumbers("strict pow", number -> StrictMath.pow(Math.abs(number), 1.7));
        tellOfNumbers("sin", Math::sin);
        tellOfNumbers("cos", Math::cos);
        tellOfNumbers("tan", Math::tan);
        tellOfNumbers("exp", Math::exp);
        tellOfNumbers("log", number -> Math.log(Math.abs(number)));
        tellOfNumbers("log10", number -> Math.log10(Math.abs(number)));
        tellOfNumbers("pow", number -> Math.pow(Math.abs(number), 1.7));
        tellOfNumbers("cbrt", Math::cbrt);
        tellOfNumbers("atan2", number -> Math.atan2(number, 0.3));
    }

    private static void tellOfNumbers(String what, OfNumber operation) {
        Random random = new Random(3);
        long sum = 1;
        for (int i = 0; i < 2000; ++i) {
            double number = i < 50 ? i - 25 : random.nextGaussian() * Math.scalb(1.0, i % 40 - 20);
            sum = 31 * sum + Double.doubleToLongBits(operation.of(number));
        }
        for (double number : new double[] {0.0, -0.0, Double.NaN, Double.POSITIVE_INFINITY, Double.MIN_VALUE, Double.MAX_VALUE}) {
            sum = 31 * sum + Double.doubleToLongBits(operation.of(number));
        }
        tell("Math " + what, Long.toHexString(sum));
    }

    public static String getLanIp4AddressS() {
        return "";
    }

    public static String getWlanIp4AddressS() {
        return "";
    }
}
