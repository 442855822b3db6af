package kavra.junit;

import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.File;
import java.nio.file.FileSystem;
import java.nio.file.FileSystems;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.util.Arrays;
import java.util.List;

import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/**
 * Loading the library in a JVM of its own (this class's main) is refused when a class whose natives it registers
 * is missing. (Every other test class loads it and uses the natives it registered.)
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
        // The child checks JNI as this JVM does; JUnit's own jar lets it load this class.
        String output = Media.run(List.of(System.getProperty("kavra.java"), "-Xcheck:jni",
                "-Djava.library.path=" + System.getProperty("java.library.path"), "-cp",
                classpath.replace(jar, reduced.toString()) + File.pathSeparator + System.getProperty("java.class.path"),
                LibraryLoadTest.class.getName()));
        assertTrue(output.contains("ERROR: register_cn_kavra_video_editor registration failed"), output);
        assertFalse(output.contains("register_cn_kavra_video_render registration failed"), output);
        assertFalse(output.contains("in native method"), output);
        assertTrue(output.endsWith("refused\nexit 0"), output);
    }

    public static void main(String[] args) {
        try {
            System.loadLibrary("kavra_gallery_player");
            System.out.println("loaded");
        } catch (UnsatisfiedLinkError e) {
            System.out.println("refused");
        }
    }
}
