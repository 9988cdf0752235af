package com.tarn.vemo.config;

import java.net.Inet4Address;
import java.net.InetAddress;
import java.net.NetworkInterface;
import java.net.SocketException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Enumeration;

/**
 * The device's configuration, which the web interface's programs read through JNI.
 *
 * <p>Every web request loads this class into a Java VM of its own. So it has no static initialiser and no
 * lambdas, which would cost start-up time. Its callers check neither for null nor for exceptions. So its
 * methods return the empty text when they do not know the answer.
 */
public final class ConfigVemo {

    private ConfigVemo() {
    }

    /** Dotted IPv4 address of the wired network, or "". */
    public static String getLanIp4AddressS() {
        return addressOf(false);
    }

    /** Dotted IPv4 address of the wireless network, or "". */
    public static String getWlanIp4AddressS() {
        return addressOf(true);
    }

    /** Prefers a network card's address to that of a bridge, a tunnel or another virtual interface. */
    private static String addressOf(boolean wireless) {
        try {
            String virtual = "";
            Enumeration<NetworkInterface> interfaces = NetworkInterface.getNetworkInterfaces();
            while (interfaces.hasMoreElements()) {
                NetworkInterface candidate = interfaces.nextElement();
                if (candidate.isLoopback() || !candidate.isUp() || isWireless(candidate) != wireless) {
                    continue;
                }
                String address = ip4AddressOf(candidate);
                if (!address.isEmpty() && isCard(candidate)) {
                    return address;
                }
                if (virtual.isEmpty()) {
                    virtual = address;
                }
            }
            return virtual;
        } catch (SocketException | RuntimeException e) {
            return "";
        }
    }

    private static String ip4AddressOf(NetworkInterface networkInterface) {
        Enumeration<InetAddress> addresses = networkInterface.getInetAddresses();
        while (addresses.hasMoreElements()) {
            InetAddress address = addresses.nextElement();
            if (address instanceof Inet4Address) {
                return address.getHostAddress();
            }
        }
        return "";
    }

    /** Linux drivers with the older wireless interface have "wireless", those with the newer one "phy80211". */
    private static boolean isWireless(NetworkInterface networkInterface) {
        return hasKernelEntry(networkInterface, "wireless") || hasKernelEntry(networkInterface, "phy80211");
    }

    private static boolean isCard(NetworkInterface networkInterface) {
        return hasKernelEntry(networkInterface, "device");
    }

    private static boolean hasKernelEntry(NetworkInterface networkInterface, String entry) {
        return Files.exists(Path.of("/sys/class/net", networkInterface.getName(), entry));
    }
}
