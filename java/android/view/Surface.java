package android.view;

/**
 * A drawing surface, as the native library sees it on Linux. The field
 * {@code mNativeObject} holds the address of the native surface (a native
 * window and its buffer producer) that the engine draws into, or 0 for none.
 *
 * <p>This class only carries the address: whoever created the native
 * surface (a desktop viewer, a test) keeps it alive while a player or a
 * frame renderer uses it, and frees it afterwards. On a phone the platform's
 * own class takes this one's place.
 */
public class Surface {
    private long mNativeObject;

    /** A surface backed by the native surface at {@code nativeObject}. */
    public Surface(long nativeObject) {
        mNativeObject = nativeObject;
    }

    /** Whether a native surface is attached. */
    public boolean isValid() {
        return mNativeObject != 0;
    }

    /** Detaches the native surface; it is not freed. */
    public void release() {
        mNativeObject = 0;
    }
}
