<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="fr_FR">
<context>
    <name>AuthDialog</name>
    <message>
        <source>Authentication</source>
        <translation>Authentification</translation>
    </message>
    <message>
        <source>This website requires authentication:</source>
        <translation>Ce site web demande une authentification :</translation>
    </message>
    <message>
        <source>Username:</source>
        <translation>Nom d&apos;utilisateur :</translation>
    </message>
    <message>
        <source>Password:</source>
        <translation>Mot de passe :</translation>
    </message>
</context>
<context>
    <name>Browser</name>
    <message>
        <source>New tab</source>
        <translation>Nouvel onglet</translation>
    </message>
    <message>
        <source>New Page</source>
        <translation>Nouvelle page</translation>
    </message>
    <message>
        <source>DENIED: %1</source>
        <translation>REFUSÉ : %1</translation>
    </message>
    <message>
        <source>remaining: %02d:%02d:%02d</source>
        <translation>restant : %02d:%02d:%02d</translation>
    </message>
</context>
<context>
    <name>ExitPasswordDialog</name>
    <message>
        <source>Password Required</source>
        <translation>Mot de passe requis</translation>
    </message>
    <message>
        <source>Administrator password:</source>
        <translation>Mot de passe administrateur :</translation>
    </message>
</context>
<context>
    <name>NavBar</name>
    <message>
        <source>Home</source>
        <translation>Accueil</translation>
    </message>
    <message>
        <source>Go</source>
        <translation>Aller</translation>
    </message>
    <message>
        <source>Print</source>
        <translation>Imprimer</translation>
    </message>
    <message>
        <source>Clear</source>
        <translation>Terminer</translation>
    </message>
    <message>
        <source>End the web session</source>
        <translation>Terminer la session web</translation>
    </message>
    <message>
        <source>Your session will be terminated.

Do you really want to continue?</source>
        <translation>Votre session va être terminée.

Voulez-vous vraiment continuer ?</translation>
    </message>
</context>
<context>
    <name>PlaylistFile</name>
    <message>
        <source>The playlist is empty.</source>
        <translation>La liste de lecture est vide.</translation>
    </message>
    <message>
        <source>Not a playlist: the XML document has no &quot;schedule&quot; root element.</source>
        <translation>Ce n&apos;est pas une liste de lecture : le document XML n&apos;a pas d&apos;élément racine &quot;schedule&quot;.</translation>
    </message>
    <message>
        <source>The schedule has no loop.</source>
        <translation>Le programme ne contient aucune boucle.</translation>
    </message>
    <message>
        <source>Not a playlist: neither an XML schedule nor a text list beginning with &quot;%1&quot;.</source>
        <translation>Ce n&apos;est pas une liste de lecture : ni un programme XML, ni une liste texte commençant par &quot;%1&quot;.</translation>
    </message>
    <message>
        <source>The playlist has no entry: each line needs an address, a blank and a duration.</source>
        <translation>La liste de lecture n&apos;a aucune entrée : chaque ligne doit contenir une adresse, une espace et une durée.</translation>
    </message>
    <message>
        <source>The current playlist could not be kept as %1.</source>
        <translation>La liste de lecture actuelle n&apos;a pas pu être conservée sous %1.</translation>
    </message>
    <message>
        <source>The playlist could not be written to %1.</source>
        <translation>La liste de lecture n&apos;a pas pu être écrite dans %1.</translation>
    </message>
    <message>
        <source>Loop %1</source>
        <translation>Boucle %1</translation>
    </message>
    <message>
        <source>idle</source>
        <translation>veille</translation>
    </message>
    <message>
        <source>The playlist is refused: it is larger than %1 MiB.</source>
        <translation>La liste de lecture est refusée : elle dépasse %1 Mio.</translation>
    </message>
    <message>
        <source>The playlist is refused: it has a document type declaration (&lt;!DOCTYPE ...&gt;), which could declare entities; playlists must not have one.</source>
        <translation>La liste de lecture est refusée : elle contient une déclaration de type de document (&lt;!DOCTYPE ...&gt;), qui pourrait déclarer des entités ; une liste de lecture ne doit pas en avoir.</translation>
    </message>
    <message>
        <source>The playlist is refused: its elements are nested deeper than %1 levels.</source>
        <translation>La liste de lecture est refusée : ses éléments sont imbriqués sur plus de %1 niveaux.</translation>
    </message>
</context>
<context>
    <name>PlaylistParser</name>
    <message>
        <source>Network unreachable</source>
        <translation>Réseau inaccessible</translation>
    </message>
    <message>
        <source>Vorsane Kiosk is Offline.
Please select local playlist option or connect the system to a network.</source>
        <translation>Vorsane Kiosk est hors ligne.
Veuillez choisir l’option de liste de lecture locale ou connecter le système à un réseau.</translation>
    </message>
</context>
<context>
    <name>RemotePage</name>
    <message>
        <source>Choose a file first.</source>
        <translation>Choisissez d’abord un fichier.</translation>
    </message>
    <message>
        <source>Display</source>
        <translation>Affichage</translation>
    </message>
    <message>
        <source>Drop pictures, videos, PDFs or documents here</source>
        <translation>Déposez ici des images, vidéos, PDF ou documents</translation>
    </message>
    <message>
        <source>Files played first</source>
        <translation>Fichiers joués en premier</translation>
    </message>
    <message>
        <source>Go to an item</source>
        <translation>Aller à un élément</translation>
    </message>
    <message>
        <source>Local playlist</source>
        <translation>Liste de lecture locale</translation>
    </message>
    <message>
        <source>Next</source>
        <translation>Suivant</translation>
    </message>
    <message>
        <source>Pause / resume</source>
        <translation>Pause / reprise</translation>
    </message>
    <message>
        <source>Playlist saved; the slideshow restarts.</source>
        <translation>Liste de lecture enregistrée ; le diaporama redémarre.</translation>
    </message>
    <message>
        <source>Remove</source>
        <translation>Supprimer</translation>
    </message>
    <message>
        <source>Replace with file</source>
        <translation>Remplacer par un fichier</translation>
    </message>
    <message>
        <source>Restart</source>
        <translation>Redémarrer</translation>
    </message>
    <message>
        <source>Save playlist</source>
        <translation>Enregistrer la liste</translation>
    </message>
    <message>
        <source>Screen off</source>
        <translation>Éteindre l’écran</translation>
    </message>
    <message>
        <source>Screen on</source>
        <translation>Allumer l’écran</translation>
    </message>
    <message>
        <source>Screen</source>
        <translation>Écran</translation>
    </message>
    <message>
        <source>Sent.</source>
        <translation>Envoyé.</translation>
    </message>
    <message>
        <source>Show a text or a web address</source>
        <translation>Afficher un texte ou une adresse web</translation>
    </message>
    <message>
        <source>Show address</source>
        <translation>Afficher l’adresse</translation>
    </message>
    <message>
        <source>Show text</source>
        <translation>Afficher le texte</translation>
    </message>
    <message>
        <source>Show</source>
        <translation>Afficher</translation>
    </message>
    <message>
        <source>Text</source>
        <translation>Texte</translation>
    </message>
    <message>
        <source>The current screen</source>
        <translation>L’écran actuel</translation>
    </message>
    <message>
        <source>The server did not answer.</source>
        <translation>Le serveur n’a pas répondu.</translation>
    </message>
    <message>
        <source>The slideshow removes the file.</source>
        <translation>Le diaporama supprime le fichier.</translation>
    </message>
    <message>
        <source>Uploaded:</source>
        <translation>Envoyé :</translation>
    </message>
    <message>
        <source>Uploading...</source>
        <translation>Envoi en cours...</translation>
    </message>
    <message>
        <source>Vorsane remote control</source>
        <translation>Télécommande Vorsane</translation>
    </message>
    <message>
        <source>seconds</source>
        <translation>secondes</translation>
    </message>
</context>
<context>
    <name>RemoteServer</name>
    <message>
        <source>The request is too large.</source>
        <translation>La requête est trop volumineuse.</translation>
    </message>
    <message>
        <source>Unknown command.</source>
        <translation>Commande inconnue.</translation>
    </message>
    <message>
        <source>The command could not be sent to the slideshow.</source>
        <translation>La commande n&apos;a pas pu être envoyée au diaporama.</translation>
    </message>
    <message>
        <source>No such file: %1</source>
        <translation>Fichier introuvable : %1</translation>
    </message>
    <message>
        <source>Editing the local playlist is turned off.</source>
        <translation>La modification de la liste de lecture locale est désactivée.</translation>
    </message>
    <message>
        <source>No playlist file was sent.</source>
        <translation>Aucun fichier de liste de lecture n&apos;a été envoyé.</translation>
    </message>
    <message>
        <source>Switching the screen is turned off.</source>
        <translation>La commande de l&apos;écran est désactivée.</translation>
    </message>
    <message>
        <source>Send the files as multipart/form-data.</source>
        <translation>Envoyez les fichiers en multipart/form-data.</translation>
    </message>
    <message>
        <source>The upload must state its length.</source>
        <translation>L&apos;envoi doit indiquer sa taille.</translation>
    </message>
    <message>
        <source>Not enough free disk space for this upload.</source>
        <translation>Pas assez d&apos;espace disque libre pour cet envoi.</translation>
    </message>
    <message>
        <source>The upload was not complete; nothing was kept.</source>
        <translation>L&apos;envoi n&apos;était pas complet ; rien n&apos;a été conservé.</translation>
    </message>
    <message>
        <source>Only pictures, videos, PDFs and HTML or text documents are accepted.</source>
        <translation>Seuls les images, vidéos, PDF et documents HTML ou texte sont acceptés.</translation>
    </message>
    <message>
        <source>The request states its length twice.</source>
        <translation>La requête indique sa longueur deux fois.</translation>
    </message>
    <message>
        <source>Compressed request bodies are not accepted.</source>
        <translation>Les corps de requête compressés ne sont pas acceptés.</translation>
    </message>
    <message>
        <source>Only http and https addresses can be shown (for example https://example.com/); other content can be uploaded.</source>
        <translation>Seules les adresses http et https peuvent être affichées (par exemple https://example.com/) ; les autres contenus peuvent être envoyés comme fichiers.</translation>
    </message>
</context>
<context>
    <name>RestrictedWebPage</name>
    <message>
        <source>JavaScript Alert</source>
        <translation>Alerte JavaScript</translation>
    </message>
    <message>
        <source>JavaScript Confirm</source>
        <translation>Confirmation JavaScript</translation>
    </message>
    <message>
        <source>JavaScript Prompt</source>
        <translation>Saisie JavaScript</translation>
    </message>
</context>
<context>
    <name>Webpage</name>
    <message>
        <source>Network error: please make sure you are correctly connected to internet.</source>
        <translation>Erreur réseau : vérifiez que vous êtes bien connecté à Internet.</translation>
    </message>
</context>
</TS>
