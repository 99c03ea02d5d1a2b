// Shows a page again when the site has changed. zeph dev adds this script to pages; the text after the
// "?" of its address is the version of the site that the page shows.
(() => {
  const script = document.currentScript;
  const version = script.src.split("?")[1];
  let events = null;

  // A page that was sent a form is fetched again without it, so that nothing is sent twice.
  const reload = () => {
    if (script.dataset.posted === undefined) location.reload();
    else location.assign(location.pathname + location.search);
  };

  // Browsers have few connections for a site, so only a page that can be seen holds one.
  const listen = () => {
    const wanted = document.visibilityState === "visible";
    if (!wanted && events) {
      events.close();
      events = null;
    }
    if (!wanted || events) return;
    events = new EventSource("/-zeph/events?" + version);
    events.onmessage = () => {
      events.close();
      reload();
    };
  };

  document.addEventListener("visibilitychange", listen);
  addEventListener("pagehide", () => {
    if (events) events.close();
    events = null;
  });
  addEventListener("pageshow", listen);
  listen();
})();
