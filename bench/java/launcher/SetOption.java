import java.io.IOException;
import java.net.URLDecoder;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.StandardCopyOption;
import java.util.ArrayList;
import java.util.List;

/** The same job as a plain Java program, started by a CGI script for each request. */
public final class SetOption {
    private static final Path SETTINGS = Path.of("/app/tarn-belox/runvex/obd.conf");
    private static final String KEY = "VEMODCanDetectTimeout";

    private SetOption() {
    }

    public static void main(String[] arguments) throws IOException {
        String value = field("CanDetectTimeout");
        if (value == null) {
            print("<p class=\"warn\">Option CanDetectTimeout not set</p>");
            System.exit(1);
        }
        store(value);
        print("<p>Set CanDetectTimeout to " + value + " ms.</p>Set new option was successful.");
    }

    private static String field(String name) {
        String query = System.getenv("QUERY_STRING");
        for (String pair : (query == null ? "" : query).split("&")) {
            int separator = pair.indexOf('=');
            if (separator > 0 && pair.substring(0, separator).equalsIgnoreCase(name)) {
                return URLDecoder.decode(pair.substring(separator + 1), StandardCharsets.ISO_8859_1);
            }
        }
        return null;
    }

    private static void store(String value) throws IOException {
        List<String> lines = new ArrayList<>();
        for (String line : Files.readAllLines(SETTINGS, StandardCharsets.ISO_8859_1)) {
            lines.add(line.startsWith(KEY + "=") ? KEY + "=" + value : line);
        }
        Path temporary = SETTINGS.resolveSibling("obd.conf.new");
        Files.write(temporary, lines, StandardCharsets.ISO_8859_1);
        Files.move(temporary, SETTINGS, StandardCopyOption.REPLACE_EXISTING);
    }

    private static void print(String content) {
        System.out.print("Content-Type: text/html\n\n<html>\n<head>\n"
                + "<title>VEMO Web Server - SetObdConf</title>\n"
                + "<link href=\"/css/all.css\" rel=\"stylesheet\" media=\"screen\">\n</head>\n<body>\n"
                + "<h2>Set CanDetectTimeout</h2>\n<div class=\"content\">\n" + content
                + "\n</div>\n</body>\n</html>\n");
    }
}
