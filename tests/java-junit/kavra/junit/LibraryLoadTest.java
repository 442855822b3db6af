package kavra.junit;

import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import cn.kavra.video.editor.VideoItem;

import java.io.File;
import java.nio.file.FileSystem;
import java.nio.file.FileSystems;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;

import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/**
 * Loading the library in a JVM of its own (this class's main): refused when a class whose natives it registers
 * is missing, and FFmpeg silent once it is loaded. (Every other test class loads it and uses its natives.)
 */
class LibraryLoadTest {
    /** The product jar without the trimmer class: loading fails, blamed on the editor. */
    @Test
    void missingTrimmerClassRefusesTheLibrary(@TempDir Path dir) throws Exception {
        String classpath = System.getProperty("kavra.classpath");
        String jar = Arrays.stream(classpath.split(File.pathSeparator)).filter(e -> e.endsWith(".jar")).findFirst()
                .orElseThrow();
        Path reduced = Files.copy(Paths.get(jar), dir.resolve("reduced.jar"));
        try (FileSystem zip = FileSystems.newFileSystem(reduced)) {
            Files.delete(zip.getPath("cn/kavra/video/editor/KavraTrimer.class"));
        }
        String output = probe(classpath.replace(jar, reduced.toString()));
        assertTrue(output.contains("ERROR: register_cn_kavra_video_editor registration failed"), output);
        assertFalse(output.contains("register_cn_kavra_video_render registration failed"), output);
        assertTrue(output.endsWith("exit 3"), output);
    }

    @Test
    void ffmpegStaysQuietOnceLoaded() throws Exception {
        // FFmpeg would print "moov atom not found" on its own.
        String output = probe(System.getProperty("kavra.classpath"), Media.fixture("truncated_nomoov.mp4"));
        assertTrue(output.contains("loaded") && output.contains("opened: -"), output);
        assertFalse(output.contains("moov atom"), output);
        assertTrue(output.endsWith("exit 0"), output);
    }

    /** main's output and exit status in a JVM of its own, checking JNI as this one does. */
    private static String probe(String classpath, String... args) throws Exception {
        List<String> command = new ArrayList<>(List.of(System.getProperty("kavra.java"), "-Xcheck:jni",
                "-Djava.library.path=" + System.getProperty("java.library.path"),
                "-cp", classpath + File.pathSeparator + System.getProperty("java.class.path"),
                LibraryLoadTest.class.getName()));
        command.addAll(List.of(args));
        String output = Media.run(command);
        assertFalse(output.contains("in native method"), output);
        return output;
    }

    /** Loads the library and says how that went: exit 0 loaded, 3 refused; then opens a path given as an item. */
    public static void main(String[] args) {
        try {
            System.loadLibrary("kavra_gallery_player");
        } catch (UnsatisfiedLinkError e) {
            System.out.println("refused: " + e.getMessage());
            System.exit(3);
        }
        System.out.println("loaded");
        if (args.length > 0) {
            try (VideoItem item = new VideoItem()) {
                System.out.println("opened: " + item.setDataSource(args[0], true));
            }
        }
    }
}
