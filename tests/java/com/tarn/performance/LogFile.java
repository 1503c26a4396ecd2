package com.tarn.performance;

import java.io.IOException;
import java.io.UncheckedIOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;
import java.util.regex.Matcher;
import java.util.regex.Pattern;

/** What this process has written to its standard error, the library's log lines among it. */
final class LogFile {
    private static final Path PATH = Path.of(System.getProperty("tarn.stderr"));
    /** As the host's liblog prints: TAG PRIORITY DATE TIME PID TID TEXT. */
    private static final Pattern LINE = Pattern.compile("TARNBOOSTER (\\w) \\S+ \\S+ +\\d+ +\\d+ (\\[.*)");

    private LogFile() {}

    static String text() {
        try {
            return new String(Files.readAllBytes(PATH), StandardCharsets.UTF_8);
        } catch (IOException e) {
            throw new UncheckedIOException(e);
        }
    }

    static int mark() {
        return text().length();
    }

    /**
     * The library's lines since a mark, as in {@code D [client.cpp,setEnable:366]"setEnable 1 to 1
     * restart:1"}.
     */
    static List<String> since(int mark) {
        return text()
                .substring(mark)
                .lines()
                .map(LINE::matcher)
                .filter(Matcher::matches)
                .map(m -> m.group(1) + " " + m.group(2))
                .toList();
    }

    /** Those of them that functions wrote whose FILE,FUNCTION matches a pattern as a whole. */
    static List<String> since(int mark, String place) {
        Pattern ofPlace = Pattern.compile("\\w \\[(?:" + place + "):\\d+].*");
        return since(mark).stream().filter(line -> ofPlace.matcher(line).matches()).toList();
    }

    /** A line without its source line, for lines that have no number of their own. */
    static String anySite(String line) {
        return line.replaceFirst(":\\d+]", ":#]");
    }
}
