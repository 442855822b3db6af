package kavra.junit;

import cn.kavra.video.editor.VideoItem;

/**
 * Loads the library in a JVM of its own and says how that went: exit 0
 * loaded, 3 refused. With a path, then opens it as an editor item.
 */
public final class LoadProbe {
    private LoadProbe() {}

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
