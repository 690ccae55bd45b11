// Numbers for people, and which part of the page is shown.

export function formatBytes(bytes) {
  if (bytes < 1000) return `${bytes} bytes`;
  if (bytes < 1e6) return `${(bytes / 1e3).toFixed(1)} kB`;
  return bytes < 1e9 ? `${(bytes / 1e6).toFixed(2)} MB` : `${(bytes / 1e9).toFixed(2)} GB`;
}

export function formatTime(milliseconds) {
  return milliseconds < 1000
    ? `${Math.round(milliseconds)} ms`
    : `${(milliseconds / 1000).toFixed(1)} s`;
}

/** Shows one of the sections. */
export function show(id) {
  for (const section of document.querySelectorAll('main > section'))
    section.hidden = section.id !== id;
}
